// What only a kernel shows: servers and clients of real nodes that are killed under each other's
// hands. Needs root and /dev/cuse; the lab runs it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>

#include "QVCapture.h"
#include "QVDriverRequests.h"
#include "support/PackageBuilder.h"
#include "support/ThreadState.h"
#include "tool/ToolProcess.h"
#include "tool/ToolTexts.h"

namespace qvtest {
namespace {

using qvsim::Pelix;
using qvsim::ServingProcess;
using qvsim::Slow;
using testing::EndsWith;
using testing::HasSubstr;

void AwaitAsleep(pid_t thread) {
    while (ThreadState(thread) != 'S') std::this_thread::yield();
}

// A thread that waits for an event for ever, and what it was told.
class Waiter {
  public:
    explicit Waiter(unsigned long long event)
        : m_thread([this, event] {
              m_id = gettid();
              m_answer = QVWaitEvent(event, -1);
          }) {
        while (m_id == 0) std::this_thread::yield();
        AwaitAsleep(m_id);
    }
    // Ends a system call that may be interrupted.
    void Interrupt() {
        struct sigaction act {};
        act.sa_handler = [](int) {};
        EXPECT_EQ(0, sigaction(SIGUSR1, &act, nullptr));
        EXPECT_EQ(0, pthread_kill(m_thread.native_handle(), SIGUSR1));
    }
    int Answer() {
        m_thread.join();
        return m_answer;
    }

  private:
    std::atomic<pid_t> m_id = 0;
    int m_answer = 1;
    std::thread m_thread;
};

class ServedNodesTest : public testing::Test {
  protected:
    void Serve() {
        server = std::make_unique<ServingProcess>(rig.Dir());
        ASSERT_TRUE(QVCaptureInitInstance());
    }
    void TearDown() override { QVCaptureExitInstance(); }

    qvsim::SimRig rig;
    std::unique_ptr<ServingProcess> server;
};

TEST_F(ServedNodesTest, AWaitEndsWithAFailureWhenTheServerIsKilled) {
    rig.Add(Pelix());
    Serve();
    const unsigned long long event = QVCreateEvent();
    ASSERT_NE(0u, event);
    Waiter waiter(event);
    server->Kill();
    EXPECT_EQ(-1, waiter.Answer());
    EXPECT_EQ(-1, QVWaitEvent(event, -1)) << "at once, not for ever";
    EXPECT_EQ(nullptr, QVOpenChannelByPath("/dev/video0"));
    EXPECT_NE(0, access("/dev/video0", F_OK));
    EXPECT_NE(0, access("/dev/qv-event", F_OK));
}

TEST_F(ServedNodesTest, AServerThatIsToldToEndEndsItsWaitsFirst) {
    rig.Add(Pelix());
    Serve();
    Waiter waiter(QVCreateEvent());
    server.reset();  // fails the test when its status is not 0
    EXPECT_EQ(-1, waiter.Answer());
    EXPECT_THAT(rig.Journal(), testing::Contains(HasSubstr("timeout=-1 = -1 ENODEV")));
}

TEST_F(ServedNodesTest, AnInterruptDuringADelayEndsTheWaitBehindIt) {
    rig.Add(Pelix());
    rig.AddFault({.request = "WaitEvent", .effect = Slow(1000)});
    Serve();
    Waiter waiter(QVCreateEvent());
    waiter.Interrupt();
    EXPECT_EQ(-1, waiter.Answer());
    EXPECT_THAT(rig.Journal(), testing::Contains(HasSubstr("timeout=-1 = -1 EINTR")));
}

TEST_F(ServedNodesTest, AnErrorThatTheKernelDoesNotPassOnIsEio) {
    rig.Add(Pelix());
    rig.AddFault({.request = "GetTemperature", .effect = qvsim::Refuse(512)});
    Serve();
    QV_CHANNEL channel = QVOpenChannelByPath("/dev/video0");
    unsigned int temperature = 0;
    errno = 0;
    EXPECT_EQ(QV_RESULT_FAILED, QVGetTemperature(channel, &temperature));
    EXPECT_EQ(EIO, errno);
    QVCloseChannel(channel);
}

double Seconds(clockid_t clock) {
    timespec time{};
    EXPECT_EQ(0, clock_gettime(clock, &time));
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// Beside a thread that does spin, over the same stretch of time.
TEST_F(ServedNodesTest, AWorkerWhoseServerIsKilledNeitherSpinsNorHangs) {
    rig.Add(Pelix());
    Serve();
    QV_CHANNEL channel = QVOpenChannelByPath("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
    ASSERT_NE(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr));
    server->Kill();
    std::atomic<bool> over = false;
    std::thread spinner([&] {
        const double begin = Seconds(CLOCK_THREAD_CPUTIME_ID);
        while (Seconds(CLOCK_THREAD_CPUTIME_ID) - begin < 0.5) continue;
        over = true;
    });
    const double before = Seconds(CLOCK_PROCESS_CPUTIME_ID);
    while (!over) usleep(10000);
    const double spent = Seconds(CLOCK_PROCESS_CPUTIME_ID) - before;
    spinner.join();
    EXPECT_LT(spent, 1.5 * 0.5) << "the spinner's own half second, and little besides";
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    QVCloseChannel(channel);
}

TEST_F(ServedNodesTest, AFlashAtWorkHoldsUpNoOtherProgram) {
    rig.Add(Pelix().Channels(2));
    rig.AddFault({.request = "EraseFirmwareData", .effect = Slow(3000)});
    Serve();
    QV_CHANNEL busy = QVOpenChannelByPath("/dev/video0");
    QV_CHANNEL other = QVOpenChannelByPath("/dev/video1");
    std::atomic<pid_t> id = 0;
    std::atomic<bool> erased = false;
    std::thread eraser([&] {
        id = gettid();
        EXPECT_EQ(QV_RESULT_OK, QVEraseFirmwareData(busy, 0x200000, 4096));
        erased = true;
    });
    while (id == 0) std::this_thread::yield();
    AwaitAsleep(id);
    for (int i = 0; i < 10; ++i) {
        unsigned int temperature = 0;
        EXPECT_EQ(QV_RESULT_OK, QVGetTemperature(other, &temperature));
        EXPECT_EQ(QV_RESULT_OK, QVGetTemperature(busy, &temperature));
    }
    EXPECT_FALSE(erased);
    eraser.join();
    QVCloseChannel(busy);
    QVCloseChannel(other);
}

class ServedToolTest : public testing::Test {
  protected:
    static constexpr uint32_t kSection = 0x200000;
    ServedToolTest() {
        rig.Add(Pelix().Product("P"));
        rig.AddFault({.request = "EraseFirmwareData", .nth = 2, .effect = Slow(1000)});
        Package().Firmware(1, 1).Section("Factory.Main", kSection, 70000).Write(folder / "p.qvf");
    }
    // Does it while the section's first chunk is being erased.
    ToolRun During(const std::function<void(pid_t)>& what) {
        bool done = false;
        return folder.OnTerminal(rig, {"-a", "-y"},
                                 [&](const ToolFolder::Screen& screen) -> std::string {
                                     if (done || !SectionIsBeingErased(screen.pid)) return {};
                                     done = true;
                                     what(screen.pid);
                                     return {};
                                 });
    }
    // The tool waits in that request, and the server has it: what is asked of the same node behind
    // it is answered.
    static bool SectionIsBeingErased(pid_t tool) {
        std::ifstream file("/proc/" + std::to_string(tool) + "/syscall");
        uintptr_t number = 0;
        uintptr_t descriptor = 0;
        uintptr_t code = 0;
        uintptr_t address = 0;
        file >> std::dec >> number >> std::hex >> descriptor >> code >> address;
        qv::FirmwareEraseRecord record{};
        const iovec here{&record, sizeof record};
        const iovec there{reinterpret_cast<void*>(address), sizeof record};
        if (number != SYS_ioctl || code != qv::kEraseFirmwareData.code ||
            process_vm_readv(tool, &here, 1, &there, 1, 0) != ssize_t{sizeof record} ||
            record.offset != kSection)
            return false;
        return close(open("/dev/video0", O_RDWR)) == 0;
    }
    qvsim::SimRig rig;
    ToolFolder folder;
};

TEST_F(ServedToolTest, AToolWhoseServerIsKilledReportsItsDeviceAndEnds) {
    const ToolRun run = During([this](pid_t) { folder.KillServer(); });
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, HasSubstr("Upgrade from 1.0 to 1.1 error (erasing at 0%)."));
    EXPECT_THAT(run.output, EndsWith("total 1,  success 0,  fail 1,  skip 0,  cancel 0\n"));
    EXPECT_TRUE(run.terminalRestored);
}

TEST_F(ServedToolTest, AToolThatIsKilledWhileTheFlashWorksIsGoneWhenTheFlashIsDone) {
    const ToolRun run = During([](pid_t pid) { kill(pid, SIGKILL); });
    EXPECT_EQ(SIGKILL, run.signal);
    // The erase came to its end, nothing was asked behind it, and the node was closed.
    const std::vector<std::string> lines = rig.KernelJournal();
    ASSERT_LT(3u, lines.size());
    EXPECT_THAT(lines[lines.size() - 3], HasSubstr("EraseFirmwareData offset=0x200000"));
    EXPECT_THAT(lines[lines.size() - 3], EndsWith(" = 0"));
    EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y"}).output, HasSubstr("successfully."));
    rig.PowerCycle();
    EXPECT_EQ(qvsim::Version(1, 1), rig.RunningVersion(0, 0));
}

}  // namespace
}  // namespace qvtest
