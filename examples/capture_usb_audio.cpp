// Records raw samples from the sound card of a channel through ALSA: 16-bit stereo at 48 kHz.
//
//   capture_usb_audio DEVICE NODE SECONDS FILE
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "QVCapture.h"

namespace {

constexpr unsigned int kRate = 48000;
constexpr unsigned int kBytesPerSecond = kRate * 2 * 2;

struct Recording {
    std::FILE* file = nullptr;
    unsigned long left = 0;  // bytes
    std::mutex lock;
    std::condition_variable done;
};

// On the capture's own thread; the data is only valid until this returns.
void onChunk(const unsigned char* data, int bytes, long long /*reserved*/, void* param) {
    auto* recording = static_cast<Recording*>(param);
    const std::lock_guard<std::mutex> guard(recording->lock);
    const auto size = static_cast<unsigned long>(bytes);
    const unsigned long part = size < recording->left ? size : recording->left;
    if (part == 0) return;
    recording->left -= std::fwrite(data, 1, part, recording->file);
    if (recording->left == 0) recording->done.notify_one();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: capture_usb_audio DEVICE NODE SECONDS FILE\n");
        return 2;
    }
    Recording recording;
    recording.left = std::strtoul(argv[3], nullptr, 10) * kBytesPerSecond;
    recording.file = std::fopen(argv[4], "wb");
    if (recording.file == nullptr) {
        std::perror(argv[4]);
        return 1;
    }
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(argv[1]);
    const auto node = static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10));
    QV_AUDIO_CAPTURE capture =
        QVCreateAudioCapture(channel, node, kRate, 16, 2, onChunk, &recording);
    if (capture == nullptr) {
        std::fprintf(stderr, "%s: no sound card of it can be captured from\n", argv[1]);
    } else {
        std::unique_lock<std::mutex> guard(recording.lock);
        recording.done.wait(guard, [&] { return recording.left == 0; });
        guard.unlock();  // a callback may be waiting for it
        QVDestoryAudioCapture(capture);
    }
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    const bool written = std::fclose(recording.file) == 0;
    return capture != nullptr && written ? 0 : 1;
}
