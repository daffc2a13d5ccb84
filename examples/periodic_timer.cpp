// Calls a function periodically by the device's own clock.
//
//   periodic_timer /dev/video0 10     ten ticks, a tenth of a second apart
#include <poll.h>

#include <cstdio>
#include <cstdlib>

#include "QVCapture.hpp"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: periodic_timer DEVICE TICKS\n");
        return 2;
    }
    const unsigned long wanted = std::strtoul(argv[2], nullptr, 10);
    constexpr std::chrono::milliseconds kTenthOfASecond{100};
    const qvcapture::Instance instance;
    const qvcapture::Channel channel(argv[1]);
    const qvcapture::Worker worker(channel);
    qvcapture::Doorbell bell;
    const qvcapture::Timer timer(channel, kTenthOfASecond, kTenthOfASecond, [&] { bell.Ring(); });
    if (!timer) {
        std::fprintf(stderr, "%s: no timer: worker: %s\n", argv[1], worker.Status().Text());
        return 1;
    }
    for (unsigned long ticks = 0; ticks < wanted;) {
        pollfd waiting{bell.Fd(), POLLIN, 0};
        poll(&waiting, 1, -1);
        for (auto rings = bell.Answer(); rings != 0 && ticks < wanted; --rings)
            std::printf("tick %lu\n", ++ticks);
    }
    return 0;
}
