// Random starts, stops, registrations, captures and closes, from several threads and from
// callbacks, on drivers that use handles again, accept frames after a stop, are interrupted and
// refuse. The choice is repeatable by its seed; what the threads make of it is not. Nothing may
// hang or be left behind, every parameter is released once; the sanitizers see the rest.
//
// A bounded number of rounds; QV_STRESS_SECONDS=600 goes on for that long.
#include <array>
#include <chrono>
#include <cstdlib>

#include "FrameLayout.h"
#include "WorkerFixture.h"

namespace qvtest {
namespace {

constexpr int kThreads = 3;
constexpr int kCallsOfAThread = 40;
constexpr int kRounds = 8;

std::atomic<int> g_lent{0};
std::atomic<int> g_released{0};

// What a callback gets; it ends with its release.
struct Param {
    QV_CHANNEL channel;
    uint32_t seed;
    static Param* Lend(QV_CHANNEL channel, uint32_t seed) {
        ++g_lent;
        return new Param{channel, seed};
    }
    static void Release(void* param) {
        ++g_released;
        delete static_cast<Param*>(param);
    }
};

void AnyCall(QV_CHANNEL channel, std::mt19937& random);

// A callback does something itself now and then.
void Act(void* param) {
    auto* given = static_cast<Param*>(param);
    std::mt19937 random(++given->seed);
    if (random() % 3 == 0) AnyCall(given->channel, random);
}

void OnNotify(unsigned long long handle, unsigned int, void* param) {
    auto* given = static_cast<Param*>(param);
    const QV_CHANNEL channel = given->channel;
    if (++given->seed % 4 == 0)
        QVUnregisterNotify(channel, handle);
    else
        Act(param);
}
void OnTimer(unsigned long long handle, void* param) {
    auto* given = static_cast<Param*>(param);
    if (++given->seed % 4 == 0)
        QVDestoryTimer(given->channel, handle);
    else
        Act(param);
}
void OnFrame(unsigned long long address, unsigned int size, unsigned int,
             _QVCAP_VIDEO_FRAME_INFO* info, void* param) {
    // Reads the whole frame: the sanitizers see one that is gone.
    const auto* bytes = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(address));
    volatile unsigned int sum = info->bytes[0];
    for (unsigned int i = 0; i < size; ++i) sum = sum + bytes[i];
    Act(param);
}
void OnAudio(_QVCAP_AUDIO_CAPTURE_FRAME*, void* param) { Act(param); }

std::mutex g_handlesLock;
std::array<unsigned long long, 16> g_handles;  // of notifications and timers, some long gone

unsigned long long Exchange(std::mt19937& random, unsigned long long made) {
    const std::lock_guard guard(g_handlesLock);
    return std::exchange(g_handles[random() % g_handles.size()], made);
}

void AnyCall(QV_CHANNEL channel, std::mt19937& random) {
    const auto seed = static_cast<uint32_t>(random());
    switch (random() % 10) {
        case 0:
            QVUnregisterNotify(channel,
                               Exchange(random, QVRegisterNotifyWithRelease(
                                                    channel, 1u << random() % 3, OnNotify,
                                                    Param::Lend(channel, seed), Param::Release)));
            break;
        case 1:
            QVDestoryTimer(
                channel,
                Exchange(random, QVCreateTimerWithRelease(
                                     channel, OnTimer, random() % 3000, random() % 2 * 1000,
                                     Param::Lend(channel, seed), Param::Release)));
            break;
        case 2:
            QVUnregisterNotify(channel, Exchange(random, 0));
            break;
        case 3:
            QVDestoryTimer(channel, Exchange(random, 0));
            break;
        case 4:
        case 5:
            QVStartVideoCaptureWithRelease(channel, qv::Fourcc("GREY"), 32, 4, random() % 2,
                                           OnFrame, Param::Lend(channel, seed), Param::Release);
            break;
        case 6:
            QVStopVideoCaptureWithCallback(channel);
            break;
        case 7:
            QVStartAudioCaptureWithRelease(channel, OnAudio, Param::Lend(channel, seed),
                                           Param::Release);
            break;
        case 8:
            QVStopAudioCaptureWithCallback(channel);
            break;
        default:
            QVIsVideoCaptureStalled(channel);
            break;
    }
}

struct Closing {
    QV_CHANNEL channel;
    Gate closed;
    static void Begin(unsigned long long, unsigned int, void* param) {
        auto* self = static_cast<Closing*>(param);
        QVCloseChannelWithRelease(self->channel, self, End);
    }
    static void End(void* param) { static_cast<Closing*>(param)->closed.Open(); }
};

class UnrulyStress {
  public:
    explicit UnrulyStress(uint32_t seed) : m_random(seed) {
        m_rig.Add(Pelix().Channels(1).Video(32, 4, 0).Audio(1000));
        m_rig.Driver({.reuseHandles = true,
                      .afterStop = seed % 2 == 0 ? qvsim::AfterStop::kWriteAtOnce
                                                 : qvsim::AfterStop::kWriteAtStart});
        m_rig.AttachInMemory();
    }
    void Round() {
        ASSERT_TRUE(QVCaptureInitInstance());
        QV_CHANNEL channel = QVOpenChannelByPath("/dev/video0");
        ASSERT_NE(nullptr, channel);
        ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
        AddFaults();
        CallFromThreads(channel);
        m_rig.Cards().ClearFaults();
        if (m_random() % 2 == 0)
            CloseFromACallback(channel);
        else
            QVCloseChannel(channel);
        QVCaptureExitInstance();
        EXPECT_EQ(qvsim::Alive{}, m_rig.Cards().CountAlive());
        EXPECT_EQ(g_lent, g_released);
    }

  private:
    void AddFaults() {
        const auto add = [&](const char* request, uint32_t oneIn, int error) {
            m_rig.AddFault({.request = request,
                            .count = -1,
                            .oneIn = oneIn,
                            .seed = static_cast<uint32_t>(m_random()),
                            .effect = Refuse(error)});
        };
        for (const char* request : {"SetEvent", "WaitEvent", "MultiWaitEvent"})
            add(request, 5, EINTR);
        add(qvsim::kAnyRequest, 60, EIO);
    }
    void CallFromThreads(QV_CHANNEL channel) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i)
            threads.emplace_back([channel, seed = static_cast<uint32_t>(m_random())] {
                std::mt19937 random(seed);
                for (int call = 0; call < kCallsOfAThread; ++call) AnyCall(channel, random);
            });
        const bool stopAndStart = m_random() % 2 == 0;
        for (int i = 0; i < kCallsOfAThread; ++i) {
            m_rig.Cards().RaiseNotification(0, 0, 1u << m_random() % 3);
            if (stopAndStart && i % 10 == 9) {
                QVStopChannelThread(channel);
                QVStartChannelThread(channel);
            }
            std::this_thread::yield();
        }
        for (auto& thread : threads) thread.join();
    }
    void CloseFromACallback(QV_CHANNEL channel) {
        QVStartChannelThread(channel);  // in case the last start was refused
        Closing closing{channel, {}};
        // A worker full of registrations has no place for this one.
        if (QVRegisterNotifyWithCallback(channel, 0x8000, Closing::Begin, &closing) == 0)
            return QVCloseChannel(channel);
        m_rig.Cards().RaiseNotification(0, 0, 0x8000);
        closing.closed.Pass();
    }

    std::mt19937 m_random;
    SimRig m_rig;
};

TEST(UnrulyStressTest, NothingHangsOrStaysBehindWhateverIsCalledWhen) {
    const char* const wanted = getenv("QV_STRESS_SECONDS");
    const auto until = std::chrono::steady_clock::now() +
                       std::chrono::seconds(wanted != nullptr ? atoi(wanted) : 0);
    uint32_t seed = 1;
    for (; seed <= kRounds || std::chrono::steady_clock::now() < until; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        UnrulyStress stress(seed);
        stress.Round();
        if (HasFailure()) return;
    }
    RecordProperty("rounds", static_cast<int>(seed - 1));
}

}  // namespace
}  // namespace qvtest
