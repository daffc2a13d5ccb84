// Captures frames of a USB device through its V4L2 node into a raw file.
//
//   capture_usb_video DEVICE FRAMES FILE     640x360 YUY2 at 30 frames per second
#include <poll.h>

#include <cstdio>
#include <cstdlib>

#include "QVCapture.hpp"

namespace {

constexpr int kPatienceMs = 3000;  // without a single frame

// False when the file cannot be written or frames stop coming: a capture that could not be started
// delivers nothing, nor does a device that was pulled out.
bool record(qvcapture::Mailbox<qvcapture::ChunkCopy>& frames, unsigned long wanted,
            std::FILE* file) {
    qvcapture::ChunkCopy frame;
    while (wanted != 0) {
        pollfd waiting{frames.Fd(), POLLIN, 0};
        if (poll(&waiting, 1, kPatienceMs) == 0) return false;
        for (; wanted != 0 && frames.Take(frame); --wanted)
            if (std::fwrite(frame.bytes.data(), 1, frame.bytes.size(), file) != frame.bytes.size())
                return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: capture_usb_video DEVICE FRAMES FILE\n");
        return 2;
    }
    std::FILE* file = std::fopen(argv[3], "wb");
    if (file == nullptr) {
        std::perror(argv[3]);
        return 1;
    }
    constexpr qvcapture::VideoFormat kFormat{qvcapture::FourCc("YUY2"), 640, 360};
    constexpr qvcapture::Ticks kThirtyPerSecond{333333};
    const qvcapture::Instance instance;
    const qvcapture::Channel channel(argv[1]);
    qvcapture::Mailbox<qvcapture::ChunkCopy> frames(8);
    const qvcapture::NodeVideoCapture capture(channel, kFormat, kThirtyPerSecond, frames.Sink());
    bool good = false;
    if (!capture) {
        std::fprintf(stderr, "%s: has no V4L2 node that can be captured from\n", argv[1]);
    } else {
        good = record(frames, std::strtoul(argv[2], nullptr, 10), file);
        if (!good) std::fprintf(stderr, "%s: no more frames come\n", argv[1]);
    }
    return std::fclose(file) == 0 && good ? 0 : 1;
}
