// Captures frames of a USB device through its V4L2 node into a raw file.
//
//   capture_usb_video DEVICE FRAMES FILE     640x360 YUY2 at 30 frames per second
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "QVCapture.h"

namespace {

constexpr unsigned int kYuy2 = 0x32595559;    // "YUY2", first character in the low byte
constexpr int kThirtyPerSecond = 333333;      // time per frame, 100 ns units
constexpr std::chrono::seconds kPatience{3};  // without a single frame

struct Recording {
    std::FILE* file = nullptr;
    unsigned long left = 0;  // frames
    std::mutex lock;
    std::condition_variable done;
};

// On the capture's own thread; the frame lies in the device's buffer until this returns.
void onFrame(const unsigned char* frame, unsigned int bytesUsed, void* param) {
    auto* recording = static_cast<Recording*>(param);
    const std::lock_guard<std::mutex> guard(recording->lock);
    if (recording->left == 0) return;
    std::fwrite(frame, 1, bytesUsed, recording->file);
    if (--recording->left == 0) recording->done.notify_one();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: capture_usb_video DEVICE FRAMES FILE\n");
        return 2;
    }
    Recording recording;
    recording.left = std::strtoul(argv[2], nullptr, 10);
    recording.file = std::fopen(argv[3], "wb");
    if (recording.file == nullptr) {
        std::perror(argv[3]);
        return 1;
    }
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(argv[1]);
    QV_VIDEO_CAPTURE capture =
        QVCreateVideoCapture(channel, 640, 360, kYuy2, kThirtyPerSecond, onFrame, &recording);
    if (capture == nullptr) {
        std::fprintf(stderr, "%s: has no V4L2 node that can be captured from\n", argv[1]);
    } else {
        std::unique_lock<std::mutex> guard(recording.lock);
        // A capture that could not be started delivers nothing; so does a device that was pulled
        // out.
        unsigned long before = recording.left + 1;
        while (recording.left != 0 && recording.left != before) {
            before = recording.left;
            recording.done.wait_for(guard, kPatience, [&] { return recording.left == 0; });
        }
        if (recording.left != 0) std::fprintf(stderr, "%s: no more frames come\n", argv[1]);
        guard.unlock();  // a callback may be waiting for it
        QVDestoryVideoCapture(capture);
    }
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    const bool written = std::fclose(recording.file) == 0;
    return capture != nullptr && recording.left == 0 && written ? 0 : 1;
}
