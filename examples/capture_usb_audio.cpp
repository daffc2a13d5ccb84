// Records raw samples from the sound card of a channel through ALSA: 16-bit stereo at 48 kHz.
//
//   capture_usb_audio DEVICE NODE SECONDS FILE
#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "QVCapture.hpp"

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: capture_usb_audio DEVICE NODE SECONDS FILE\n");
        return 2;
    }
    constexpr qvcapture::SoundFormat kFormat{48000, 16, 2};
    const auto node = static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10));
    size_t left = std::strtoul(argv[3], nullptr, 10) * kFormat.rate * kFormat.channels * 2;
    std::FILE* file = std::fopen(argv[4], "wb");
    if (file == nullptr) {
        std::perror(argv[4]);
        return 1;
    }
    const qvcapture::Instance instance;
    const qvcapture::Channel channel(argv[1]);
    qvcapture::Mailbox<qvcapture::ChunkCopy> chunks(100);  // a second
    const qvcapture::SoundCapture capture(channel, node, kFormat, chunks.Sink());
    if (!capture) std::fprintf(stderr, "%s: no sound card of it can be captured from\n", argv[1]);
    bool good = static_cast<bool>(capture);
    while (good && left != 0) {
        pollfd waiting{chunks.Fd(), POLLIN, 0};
        poll(&waiting, 1, -1);
        qvcapture::ChunkCopy chunk;
        while (good && left != 0 && chunks.Take(chunk)) {
            const size_t part = std::min(left, chunk.bytes.size());
            good = std::fwrite(chunk.bytes.data(), 1, part, file) == part;
            left -= part;
        }
    }
    if (chunks.Dropped() != 0)
        std::fprintf(stderr, "%llu chunks dropped: the file is too slow\n",
                     static_cast<unsigned long long>(chunks.Dropped()));
    return std::fclose(file) == 0 && good ? 0 : 1;
}
