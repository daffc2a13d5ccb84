// Captures frames of a channel into a raw file and reports those that it missed because it was too
// slow.
//
//   capture_frames /dev/video0 100 frames.raw [WIDTH HEIGHT]     NV12 frames, one after the other
//   capture_frames /dev/video0 100 - | player                    the same to standard output
//
// This thread writes the frames, because the worker must not be delayed; frames for which this
// thread is too slow are dropped and counted. Frames that the driver skipped are not counted: only
// the driver knows what its frame description means. The report goes to standard error.
#include <poll.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "QVCapture.hpp"

namespace {

// Writes until the file has the wanted number of frames; false when it cannot be written.
bool record(qvcapture::Mailbox<qvcapture::FrameCopy>& frames, unsigned long wanted,
            std::FILE* file) {
    qvcapture::FrameCopy frame;
    unsigned long written = 0;
    while (written < wanted) {
        pollfd waiting{frames.Fd(), POLLIN, 0};
        poll(&waiting, 1, -1);
        for (; written < wanted && frames.Take(frame); ++written)
            if (std::fwrite(frame.bytes.data(), 1, frame.bytes.size(), file) != frame.bytes.size())
                return false;
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
    const unsigned long wanted = std::strtoul(argv[2], nullptr, 10);
    std::FILE* file = std::strcmp(argv[3], "-") == 0 ? stdout : std::fopen(argv[3], "wb");
    if (file == nullptr) {
        std::perror(argv[3]);
        return 1;
    }
    unsigned long long dropped = 0;
    bool good = false;
    {
        const qvcapture::Instance instance;
        const qvcapture::Channel channel(argv[1]);
        const qvcapture::Worker worker(channel);
        qvcapture::Mailbox<qvcapture::FrameCopy> frames(8);
        const qvcapture::VideoCapture capture(channel, {qvcapture::FourCc("NV12"), width, height},
                                              frames.Sink());
        if (capture.Status())
            good = record(frames, wanted, file);
        else
            std::fprintf(stderr, "%s: capture cannot be started: %s\n", argv[1],
                         capture.Status().Text());
        dropped = frames.Dropped();
    }
    if (std::fclose(file) != 0) good = false;
    if (good)
        std::fprintf(stderr, "%lu frames of %dx%d written, %llu dropped\n", wanted, width, height,
                     dropped);
    return good ? 0 : 1;
}
