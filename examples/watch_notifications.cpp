// Prints the notifications of a channel as they come.
//
//   watch_notifications /dev/video0 5     ends after five of them
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "QVCapture.h"

namespace {

struct Watch {
    unsigned long wanted = 0;
    unsigned long seen = 0;
    std::mutex lock;
    std::condition_variable done;
};

// On the channel's worker thread.
void onNotify(unsigned long long /*handle*/, unsigned int bits, void* param) {
    auto* watch = static_cast<Watch*>(param);
    const std::lock_guard<std::mutex> guard(watch->lock);
    if (watch->seen == watch->wanted) return;
    std::printf("notification, bits 0x%x\n", bits);
    if (++watch->seen == watch->wanted) watch->done.notify_one();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: watch_notifications DEVICE COUNT\n");
        return 2;
    }
    Watch watch;
    watch.wanted = std::strtoul(argv[2], nullptr, 10);
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(argv[1]);
    int status = 1;
    if (QVStartChannelThread(channel) != QV_RESULT_OK) {
        std::fprintf(stderr, "%s: no worker for it: is it a capture channel?\n", argv[1]);
    } else {
        // Every bit that the driver has; which one means what is the driver's to say.
        const unsigned long long all =
            QVRegisterNotifyWithCallback(channel, 0xFFFFFFFF, onNotify, &watch);
        if (all != 0) {
            std::unique_lock<std::mutex> guard(watch.lock);
            watch.done.wait(guard, [&] { return watch.seen >= watch.wanted; });
            guard.unlock();  // the callback may be waiting for it
            QVUnregisterNotify(channel, all);
            status = 0;
        }
    }
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    return status;
}
