// Compares the channel worker with bare loops that make exactly the same requests on the same
// simulated cards, alternately within one run. Prints rows of a table; exit status 1 when a target
// is missed.
#include <fcntl.h>
#include <link.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "QVCapture.h"
#include "QVDriverRequests.h"
#include "Report.h"
#include "support/SimRig.h"

namespace {

using Clock = std::chrono::steady_clock;
using qvbench::g_missed;
using qvbench::Percentile;
using qvbench::Row;
using qvbench::Text;
using qvsim::Pelix;
using qvsim::SimRig;

// ---- Allocations that the library makes --------------------------------------------------------

std::atomic<bool> g_counting{false};
std::atomic<unsigned long> g_allocations{0};
uintptr_t g_libraryFrom = 0;
uintptr_t g_libraryTo = 0;

int FindLibrary(dl_phdr_info* info, size_t, void*) {
    if (strstr(info->dlpi_name, "libqvcapture.so") == nullptr) return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
        g_libraryFrom = info->dlpi_addr + segment.p_vaddr;
        g_libraryTo = g_libraryFrom + segment.p_memsz;
    }
    return 1;
}

void Count(const void* caller) {
    const auto address = reinterpret_cast<uintptr_t>(caller);
    if (g_counting && address >= g_libraryFrom && address < g_libraryTo) ++g_allocations;
}

}  // namespace

extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
    Count(__builtin_return_address(0));
    return __libc_malloc(size);
}
void* operator new(size_t size) {
    Count(__builtin_return_address(0));
    return __libc_malloc(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    Count(__builtin_return_address(0));
    return __libc_malloc(size);
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace {

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// ---- Bare requests -----------------------------------------------------------------------------

struct Bare {
    int events = open("/dev/qv-event", O_RDWR);
    int channel = open("/dev/video0", O_RDWR | O_NONBLOCK);

    Bare() = default;
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;
    ~Bare() {
        close(events);
        close(channel);
    }
    uint64_t Create() const {
        uint64_t event = 0;
        ioctl(events, qv::kCreateEvent.code, &event);
        return event;
    }
    void Do(uint32_t code, uint64_t event) const { ioctl(events, code, &event); }
    // Waits like the worker: for several events, then tries each.
    bool Await(uint64_t event) const {
        qv::MultiWaitEventRecord record{qv::WireAddress(&event), 1, -1};
        return ioctl(events, qv::kMultiWaitEvent.code, &record) >= 1 &&
               ioctl(events, qv::kTryWaitEvent.code, &event) == 1;
    }
    // The same with a second event, as a real loop needs one to be stopped.
    bool AwaitBeside(uint64_t stop, uint64_t event) const {
        uint64_t both[2] = {stop, event};
        qv::MultiWaitEventRecord record{qv::WireAddress(both), 2, -1};
        if (ioctl(events, qv::kMultiWaitEvent.code, &record) < 1) return false;
        ioctl(events, qv::kTryWaitEvent.code, &both[0]);
        return ioctl(events, qv::kTryWaitEvent.code, &both[1]) == 1;
    }
    void AwaitOne(uint64_t event) const {
        // A slice that ends early must not make the two sides unequal.
        qv::WaitEventRecord record{event, 100};
        while (ioctl(events, qv::kWaitEvent.code, &record) == 0) continue;
    }
};

// ---- Posting a command -------------------------------------------------------------------------

constexpr int kPosts = 2000;

double LibraryPosts(QV_CHANNEL channel) {
    const auto start = Clock::now();
    for (int i = 0; i < kPosts; ++i) QVDestoryTimer(channel, 1);  // unknown: a command, no request
    return SecondsSince(start);
}

double BarePosts(const Bare& bare) {
    const uint64_t wake = bare.Create();
    std::atomic<uint64_t> completion{0};
    std::thread worker([&] {
        for (int i = 0; i < kPosts; ++i) {
            bare.Await(wake);
            bare.Do(qv::kSetEvent.code, completion);
        }
    });
    const auto start = Clock::now();
    for (int i = 0; i < kPosts; ++i) {
        completion = bare.Create();
        bare.Do(qv::kSetEvent.code, wake);
        bare.AwaitOne(completion);
        bare.Do(qv::kCloseEvent.code, completion);
    }
    const double seconds = SecondsSince(start);
    worker.join();
    bare.Do(qv::kCloseEvent.code, wake);
    return seconds;
}

void Posting(QV_CHANNEL channel) {
    const Bare bare;
    std::vector<double> ratios;
    std::vector<double> microseconds;
    for (int round = 0; round < 7; ++round) {
        const double library = LibraryPosts(channel);
        ratios.push_back(library / BarePosts(bare));
        microseconds.push_back(library / kPosts * 1e6);
    }
    const double ratio = Percentile(ratios, 0.5);
    Row("posting a command and waiting for it / a bare ping-pong of the same requests",
        Text("%.2f (%.0f us a command)", ratio, Percentile(microseconds, 0.5)), "at most 1.15",
        ratio <= 1.15);
}

// ---- Video -------------------------------------------------------------------------------------

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr unsigned int kNv12 = 0x3231564E;
constexpr uint32_t kFrameSize = kWidth * kHeight * 3 / 2;
constexpr uint32_t kFrames = 1500;

struct Counter {
    std::atomic<uint32_t> frames{0};
    std::atomic<uint32_t> wrong{0};
};

void OnFrame(unsigned long long, unsigned int, unsigned int, _QVCAP_VIDEO_FRAME_INFO* info,
             void* param) {
    auto* counter = static_cast<Counter*>(param);
    uint32_t number = 0;
    memcpy(&number, info->bytes, sizeof number);
    if (number != counter->frames + 1) ++counter->wrong;
    ++counter->frames;
}

double LibraryFramesPerSecond(QV_CHANNEL channel, uint32_t* wrong, unsigned long* allocations) {
    Counter counter;
    QVStartVideoCaptureWithCallback(channel, kNv12, kWidth, kHeight, QV_VIDEO_CAPTURE_BACK_TO_BACK,
                                    OnFrame, &counter);
    while (counter.frames < 10) std::this_thread::yield();
    g_allocations = 0;
    g_counting = true;
    const uint32_t from = counter.frames;
    const auto start = Clock::now();
    while (counter.frames < from + kFrames)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const double seconds = SecondsSince(start);
    const uint32_t frames = counter.frames - from;
    g_counting = false;
    *allocations += g_allocations;
    QVStopVideoCaptureWithCallback(channel);
    *wrong += counter.wrong;
    return frames / seconds;
}

double BareFramesPerSecond(const Bare& bare) {
    std::vector<unsigned char> buffers[2] = {std::vector<unsigned char>(kFrameSize),
                                             std::vector<unsigned char>(kFrameSize)};
    const uint64_t stop = bare.Create();
    uint64_t event = bare.Create();
    ioctl(bare.channel, qv::kStartVideoCapture.code, &event);
    const auto capture = [&](uint32_t i) {
        qv::VideoCaptureFrameRecord record{};
        record.fourcc = kNv12;
        record.width = kWidth;
        record.height = kHeight;
        record.contrast = record.saturation = 100;
        record.deinterlaceMode = 1;
        record.frameIndex = -2;
        record.address = qv::WireAddress(buffers[i % 2].data());
        record.size = kFrameSize;
        record.stride = kWidth;
        ioctl(bare.channel, qv::kCaptureVideoFrame.code, &record);
    };
    capture(0);
    Clock::time_point start;
    for (uint32_t i = 1; i <= kFrames + 10; ++i) {
        if (i == 11) start = Clock::now();
        bare.AwaitBeside(stop, event);
        _QVCAP_VIDEO_CAPTURE_STATUS status{};
        _QVCAP_VIDEO_BUFFER_INFO info{};
        ioctl(bare.channel, qv::kGetVideoCaptureStatus.code, &status);
        ioctl(bare.channel, qv::kGetVideoBufferInfo.code, &info);
        qv::FrameInfoRecord frame{info.completedFrameIndex, {}, {}};
        ioctl(bare.channel, qv::kGetVideoFrameInfo.code, &frame);
        capture(i);
    }
    const double seconds = SecondsSince(start);
    ioctl(bare.channel, qv::kStopVideoCapture.code);
    bare.Do(qv::kCloseEvent.code, event);
    bare.Do(qv::kCloseEvent.code, stop);
    return kFrames / seconds;
}

void Video(QV_CHANNEL channel) {
    const Bare bare;
    std::vector<double> ratios;
    std::vector<double> rates;
    uint32_t wrong = 0;
    unsigned long allocations = 0;
    for (int round = 0; round < 11; ++round) {
        const double library = LibraryFramesPerSecond(channel, &wrong, &allocations);
        ratios.push_back(library / BareFramesPerSecond(bare));
        rates.push_back(library);
    }
    const double ratio = Percentile(ratios, 0.5);
    Row("back-to-back capture 1920x1080 NV12: frames per second / a bare, stoppable loop's",
        Text("%.2f (%.0f frames/s)", ratio, Percentile(rates, 0.5)), "at least 0.97",
        ratio >= 0.97);
    Row("the same: frames lost, repeated or out of order", Text("%u", wrong), "0", wrong == 0);
    Row("the same: allocations by the library while capturing", Text("%lu", allocations), "0",
        allocations == 0 && g_libraryFrom != 0);
}

// ---- Latency -----------------------------------------------------------------------------------

constexpr int kSignals = 2000;
std::atomic<Clock::rep> g_seen{0};

void OnNotify(unsigned long long, unsigned int, void*) {
    g_seen = Clock::now().time_since_epoch().count();
}

double Signal(SimRig& rig) {
    g_seen = 0;
    const auto start = Clock::now();
    rig.Cards().RaiseNotification(0, 0, 0x100);
    while (g_seen == 0) std::this_thread::yield();
    return static_cast<double>(g_seen - start.time_since_epoch().count()) / 1e3;
}

void Latency(SimRig& rig, QV_CHANNEL channel) {
    std::vector<double> library;
    std::vector<double> bareLoop;
    const auto handle = QVRegisterNotifyWithCallback(channel, 0x100, OnNotify, nullptr);
    for (int i = 0; i < kSignals; ++i) library.push_back(Signal(rig));
    QVUnregisterNotify(channel, handle);

    const Bare bare;
    qv::RegisterNotifyRecord notify{0, 0x100, bare.Create()};
    ioctl(bare.channel, qv::kRegisterNotify.code, &notify);
    std::thread waiter([&] {
        for (int i = 0; i < kSignals; ++i) {
            bare.Await(notify.event);
            qv::NotifyStatusRecord status{notify.notify, 0};
            ioctl(bare.channel, qv::kGetNotifyStatus.code, &status);
            OnNotify(0, 0, nullptr);
        }
    });
    for (int i = 0; i < kSignals; ++i) bareLoop.push_back(Signal(rig));
    waiter.join();
    bare.Do(qv::kCloseEvent.code, notify.event);
    Row("from the driver's signal to the callback, median and 99th percentile; bare loop beside it",
        Text("%.0f us and %.0f us; bare %.0f us and %.0f us", Percentile(library, 0.5),
             Percentile(library, 0.99), Percentile(bareLoop, 0.5), Percentile(bareLoop, 0.99)),
        "reported", true);
}

}  // namespace

int main() {
    dl_iterate_phdr(FindLibrary, nullptr);
    SimRig rig;
    rig.Add(Pelix().Channels(1).Video(kWidth, kHeight, 0));
    rig.Attach();
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath("/dev/video0");
    if (QVStartChannelThread(channel) != QV_RESULT_OK) return 2;
    Posting(channel);
    Video(channel);
    Latency(rig, channel);
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    return g_missed == 0 ? 0 : 1;
}
