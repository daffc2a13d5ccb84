// Captures frames of a channel into a raw file and reports those that were lost.
//
//   capture_frames /dev/video0 100 frames.raw [WIDTH HEIGHT]     NV12 frames, one behind the other
//
// Frames are written on this thread, not on the worker's, which must not be held up; what this one
// is too slow for is dropped and counted. The first four bytes of the driver's frame description
// are taken for the frame's running number: gaps in it are frames that the capture itself lost.
#include <poll.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "QVCapture.hpp"

namespace {

struct Counts {
    unsigned long written = 0;
    unsigned long lost = 0;
};

// Until the file has as many frames as wanted; false when it cannot be written.
bool record(qvcapture::Mailbox<qvcapture::FrameCopy>& frames, unsigned long wanted, std::FILE* file,
            Counts& counts) {
    qvcapture::FrameCopy frame;
    uint32_t last = 0;
    while (counts.written < wanted) {
        pollfd waiting{frames.Fd(), POLLIN, 0};
        poll(&waiting, 1, -1);
        while (counts.written < wanted && frames.Take(frame)) {
            uint32_t number = 0;
            std::memcpy(&number, frame.info.bytes, sizeof number);
            if (last != 0) counts.lost += number - last - 1;
            last = number;
            if (std::fwrite(frame.bytes.data(), 1, frame.bytes.size(), file) != frame.bytes.size())
                return false;
            ++counts.written;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 6) {
        std::fprintf(stderr, "usage: capture_frames DEVICE COUNT FILE [WIDTH HEIGHT]\n");
        return 2;
    }
    const int width = argc == 6 ? std::atoi(argv[4]) : 1920;
    const int height = argc == 6 ? std::atoi(argv[5]) : 1080;
    std::FILE* file = std::fopen(argv[3], "wb");
    if (file == nullptr) {
        std::perror(argv[3]);
        return 1;
    }
    Counts counts;
    bool good = false;
    {
        const qvcapture::Instance instance;
        const qvcapture::Channel channel(argv[1]);
        const qvcapture::Worker worker(channel);
        qvcapture::Mailbox<qvcapture::FrameCopy> frames(8);
        const qvcapture::VideoCapture capture(channel, {qvcapture::FourCc("NV12"), width, height},
                                              frames.Sink());
        if (capture.Status())
            good = record(frames, std::strtoul(argv[2], nullptr, 10), file, counts);
        else
            std::fprintf(stderr, "%s: capture cannot be started: %s\n", argv[1],
                         capture.Status().Text());
    }
    if (good)
        std::printf("%lu frames of %dx%d written, %lu lost\n", counts.written, width, height,
                    counts.lost);
    if (std::fclose(file) != 0) good = false;
    return good ? 0 : 1;
}
