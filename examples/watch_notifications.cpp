// Prints the notifications of a channel as they come.
//
//   watch_notifications /dev/video0 5     ends after five of them
#include <poll.h>

#include <cstdio>
#include <cstdlib>

#include "QVCapture.hpp"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: watch_notifications DEVICE COUNT\n");
        return 2;
    }
    unsigned long left = std::strtoul(argv[2], nullptr, 10);
    const qvcapture::Instance instance;
    const qvcapture::Channel channel(argv[1]);
    const qvcapture::Worker worker(channel);
    qvcapture::Mailbox<uint32_t> raised(64);
    // Every bit of the driver; the driver defines their meaning.
    const qvcapture::Notification all(channel, 0xFFFFFFFF, raised.Sink());
    if (!all) {
        std::fprintf(stderr, "%s: not watched: worker: %s\n", argv[1], worker.Status().Text());
        return 1;
    }
    while (left != 0) {
        pollfd waiting{raised.Fd(), POLLIN, 0};
        poll(&waiting, 1, -1);
        uint32_t bits = 0;
        for (; left != 0 && raised.Take(bits); --left)
            std::printf("notification, bits 0x%x\n", bits);
    }
    return 0;
}
