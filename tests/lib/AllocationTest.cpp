// Every allocation of a channel and its worker fails once, one after the other: each call ends with
// a result, nothing is left behind or locked, and the same calls succeed right after.
#include "FailingMemory.h"
#include "FrameLayout.h"
#include "WorkerFixture.h"

namespace qvtest {
namespace {

struct Released {
    std::atomic<int> count{0};
    static void Release(void* param) { ++static_cast<Released*>(param)->count; }
};

// True when every call succeeded. Whatever fails, each parameter is released once.
bool UseAChannel() {
    Released released;
    bool good = QVCaptureInitInstance() && QVHasEventNode() && QVGetChannelCount() == 1;
    QV_CHANNEL channel = QVOpenChannelByPath("/dev/video0");
    good = good && channel != nullptr;
    good = QVStartChannelThread(channel) == QV_RESULT_OK && good;
    const auto notify =
        QVRegisterNotifyWithRelease(channel, 1, nullptr, &released, Released::Release);
    const auto plain = QVRegisterNotifyWithCallback(channel, 2, nullptr, nullptr);
    const auto timer = QVCreateTimer(channel, nullptr, 1000, 1000);
    const auto owned =
        QVCreateTimerWithRelease(channel, nullptr, 1000, 0, &released, Released::Release);
    good = good && notify != 0 && plain != 0 && timer != 0 && owned != 0;
    for (const unsigned int mode : {QV_VIDEO_CAPTURE_BACK_TO_BACK, QV_VIDEO_CAPTURE_ON_NOTIFY})
        good = QVStartVideoCaptureWithRelease(channel, qv::Fourcc("GREY"), 64, 4, mode, nullptr,
                                              &released, Released::Release) == QV_RESULT_OK &&
               good;
    good = QVStartAudioCaptureWithRelease(channel, nullptr, &released, Released::Release) ==
               QV_RESULT_OK &&
           good;
    // Ends are commands, too, and may fail; the worker's own end may not.
    good = QVUnregisterNotify(channel, notify) == QV_RESULT_OK && good;
    good = QVDestoryTimer(channel, timer) == QV_RESULT_OK && good;
    good = QVStopVideoCaptureWithCallback(channel) == QV_RESULT_OK && good;
    good = QVStopAudioCaptureWithCallback(channel) == QV_RESULT_OK && good;
    if (channel != nullptr) {
        QVStopChannelThread(channel);
        QVCloseChannel(channel);
    }
    QVCaptureExitInstance();
    EXPECT_EQ(5, released.count);
    return good;
}

TEST(AllocationTest, EveryAllocationOfAChannelAndItsWorkerMayFail) {
    SimRig rig;
    rig.Add(Pelix().Channels(1).Video(64, 4, 1000).Audio(1000));
    rig.AttachInMemory();
    rig.Cards().FreezeClock();
    FailEachAllocation(UseAChannel, [&] { EXPECT_EQ(qvsim::Alive{}, rig.Cards().CountAlive()); });
}

}  // namespace
}  // namespace qvtest
