// Has a function called periodically on the device's own clock.
//
//   periodic_timer /dev/video0 10     ten ticks, a tenth of a second apart
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "QVCapture.h"

namespace {

// Device-clock units are 100 ns.
constexpr long long kTenthOfASecond = 1000000;

// Timer callbacks have no parameter of their own.
std::mutex g_lock;
std::condition_variable g_ticked;
long g_ticks = 0;

void onTick(unsigned long long /*timer*/, void* /*always null*/) {
    const std::lock_guard<std::mutex> guard(g_lock);
    std::printf("tick %ld\n", ++g_ticks);
    g_ticked.notify_one();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: periodic_timer DEVICE TICKS\n");
        return 2;
    }
    const long wanted = std::atol(argv[2]);
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(argv[1]);
    int status = 1;
    if (QVStartChannelThread(channel) != QV_RESULT_OK) {
        std::fprintf(stderr, "%s: no worker for it: is it a capture channel?\n", argv[1]);
    } else {
        const unsigned long long timer =
            QVCreateTimer(channel, onTick, kTenthOfASecond, kTenthOfASecond);
        if (timer != 0) {
            std::unique_lock<std::mutex> guard(g_lock);
            g_ticked.wait(guard, [&] { return g_ticks >= wanted; });
            guard.unlock();                  // the callback may be waiting for it
            QVDestoryTimer(channel, timer);  // deliberately a failure for a channel's last timer
            status = 0;
        }
    }
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    return status;
}
