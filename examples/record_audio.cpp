// Records the sound of a channel into a WAV file.
//
//   record_audio /dev/video0 100 sound.wav     100 audio frames of the driver
//
// Takes the samples behind the marker for 16-bit stereo at 48 kHz; what they really are is for the
// driver to say.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "QVCapture.h"

namespace {

struct Recording {
    std::vector<unsigned char> samples;
    unsigned long wanted = 0;
    unsigned long frames = 0;
    std::mutex lock;
    std::condition_variable done;
};

void onAudio(_QVCAP_AUDIO_CAPTURE_FRAME* frame, void* param) {
    auto* recording = static_cast<Recording*>(param);
    const std::lock_guard<std::mutex> guard(recording->lock);
    if (recording->frames == recording->wanted) return;
    recording->samples.insert(recording->samples.end(), frame->bytes12,
                              frame->bytes12 + sizeof frame->bytes12);
    if (++recording->frames == recording->wanted) recording->done.notify_one();
}

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
    Recording recording;
    recording.wanted = std::strtoul(argv[2], nullptr, 10);
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(argv[1]);
    int status = 1;
    if (QVStartChannelThread(channel) != QV_RESULT_OK ||
        QVStartAudioCaptureWithCallback(channel, onAudio, &recording) != QV_RESULT_OK) {
        std::fprintf(stderr, "%s: audio capture cannot be started\n", argv[1]);
    } else {
        std::unique_lock<std::mutex> guard(recording.lock);
        recording.done.wait(guard, [&] { return recording.frames >= recording.wanted; });
        status = writeWav(argv[3], recording.samples) ? 0 : 1;
        std::printf("%lu audio frames, %zu bytes\n", recording.frames, recording.samples.size());
    }
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    return status;
}
