// Captures frames of a channel into a raw file and reports those that were lost.
//
//   capture_frames /dev/video0 100 frames.raw [WIDTH HEIGHT]     NV12 frames, one behind the other
//
// The first four bytes of the driver's frame description are taken for the frame's running number.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "QVCapture.h"

namespace {

constexpr unsigned int kNv12 = 0x3231564E;  // "NV12", first character in the low byte

struct Recording {
    std::FILE* file = nullptr;
    unsigned long wanted = 0;
    unsigned long written = 0;
    unsigned long lost = 0;
    bool failed = false;
    std::mutex lock;
    std::condition_variable done;
};

// On the channel's worker thread. The picture is only valid until this returns.
void onFrame(unsigned long long address, unsigned int size, unsigned int /*stride*/,
             _QVCAP_VIDEO_FRAME_INFO* info, void* param) {
    auto* recording = static_cast<Recording*>(param);
    static uint32_t last = 0;
    uint32_t number = 0;
    std::memcpy(&number, info->bytes, sizeof number);
    const std::lock_guard<std::mutex> guard(recording->lock);
    if (recording->written == recording->wanted || recording->failed) return;
    if (last != 0) recording->lost += number - last - 1;
    last = number;
    const void* picture = reinterpret_cast<const void*>(static_cast<uintptr_t>(address));
    recording->failed = std::fwrite(picture, 1, size, recording->file) != size;
    if (!recording->failed) ++recording->written;
    if (recording->written == recording->wanted || recording->failed) recording->done.notify_one();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 6) {
        std::fprintf(stderr, "usage: capture_frames DEVICE COUNT FILE [WIDTH HEIGHT]\n");
        return 2;
    }
    const int width = argc == 6 ? std::atoi(argv[4]) : 1920;
    const int height = argc == 6 ? std::atoi(argv[5]) : 1080;
    Recording recording;
    recording.wanted = std::strtoul(argv[2], nullptr, 10);
    recording.file = std::fopen(argv[3], "wb");
    if (recording.file == nullptr) {
        std::perror(argv[3]);
        return 1;
    }
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(argv[1]);
    int status = 1;
    if (channel == nullptr) {
        std::fprintf(stderr, "%s: not a capture channel, or it cannot be opened\n", argv[1]);
    } else if (QVStartChannelThread(channel) != QV_RESULT_OK ||
               QVStartVideoCaptureWithCallback(channel, kNv12, width, height,
                                               QV_VIDEO_CAPTURE_BACK_TO_BACK, onFrame,
                                               &recording) != QV_RESULT_OK) {
        std::fprintf(stderr, "%s: capture cannot be started\n", argv[1]);
    } else {
        std::unique_lock<std::mutex> guard(recording.lock);
        recording.done.wait(
            guard, [&] { return recording.written == recording.wanted || recording.failed; });
        std::printf("%lu frames of %dx%d written, %lu lost\n", recording.written, width, height,
                    recording.lost);
        status = recording.failed ? 1 : 0;
    }
    QVCloseChannel(channel);  // stops the worker, and with it the capture
    QVCaptureExitInstance();
    if (std::fclose(recording.file) != 0) status = 1;
    return status;
}
