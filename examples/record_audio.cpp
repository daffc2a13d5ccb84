// Records the sound of a channel into a WAV file.
//
//   record_audio /dev/video0 100 sound.wav     100 audio frames of the driver
//
// Treats the samples after the marker as 16-bit stereo at 48 kHz; the driver defines what they
// really are.
#include <poll.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "QVCapture.hpp"

namespace {

void put(std::FILE* file, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) std::fputc(static_cast<int>(value >> 8 * i & 0xFF), file);
}

bool writeWav(const char* path, const std::vector<unsigned char>& samples) {
    constexpr uint32_t kRate = 48000;
    constexpr uint32_t kChannels = 2;
    constexpr uint32_t kBits = 16;
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr) return false;
    const auto size = static_cast<uint32_t>(samples.size());
    std::fputs("RIFF", file);
    put(file, 36 + size, 4);
    std::fputs("WAVEfmt ", file);
    put(file, 16, 4);  // length of the format
    put(file, 1, 2);   // PCM
    put(file, kChannels, 2);
    put(file, kRate, 4);
    put(file, kRate * kChannels * kBits / 8, 4);
    put(file, kChannels * kBits / 8, 2);
    put(file, kBits, 2);
    std::fputs("data", file);
    put(file, size, 4);
    const bool written = std::fwrite(samples.data(), 1, size, file) == size;
    return std::fclose(file) == 0 && written;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: record_audio DEVICE FRAMES FILE\n");
        return 2;
    }
    const unsigned long wanted = std::strtoul(argv[2], nullptr, 10);
    const qvcapture::Instance instance;
    const qvcapture::Channel channel(argv[1]);
    const qvcapture::Worker worker(channel);
    qvcapture::Mailbox<_QVCAP_AUDIO_CAPTURE_FRAME> frames(64);
    const qvcapture::AudioCapture capture(channel, frames.Sink());
    if (!capture.Status()) {
        std::fprintf(stderr, "%s: audio capture cannot be started: %s\n", argv[1],
                     capture.Status().Text());
        return 1;
    }
    std::vector<unsigned char> samples;
    unsigned long taken = 0;
    while (taken < wanted) {
        pollfd waiting{frames.Fd(), POLLIN, 0};
        poll(&waiting, 1, -1);
        _QVCAP_AUDIO_CAPTURE_FRAME frame;
        for (; taken < wanted && frames.Take(frame); ++taken)
            samples.insert(samples.end(), frame.bytes12, frame.bytes12 + sizeof frame.bytes12);
    }
    std::printf("%lu audio frames, %zu bytes\n", taken, samples.size());
    if (frames.Dropped() != 0)
        std::printf("%llu dropped\n", static_cast<unsigned long long>(frames.Dropped()));
    return writeWav(argv[3], samples) ? 0 : 1;
}
