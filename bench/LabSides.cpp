#include "LabSides.h"

#include <fcntl.h>
#include <libv4l2.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "AudioAlsa.h"
#include "VideoCaptureV4l2.h"

namespace qvbench {
namespace {

[[noreturn]] void WrongSize(unsigned bytes, unsigned wanted) {
    std::fprintf(stderr, "a frame of %u bytes instead of %u\n", bytes, wanted);
    _exit(3);
}

struct Counted {
    unsigned wantedBytes;
    std::atomic<unsigned> frames{0};
};

struct Recording {
    std::FILE* file;
    std::atomic<unsigned> left;  // bytes
};

bool Configure(int fd, const VideoWish& wish) {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = wish.width;
    format.fmt.pix.height = wish.height;
    format.fmt.pix.pixelformat = wish.format;
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {1, static_cast<unsigned>(wish.fps)};
    v4l2_requestbuffers buffers{};
    buffers.count = 4;
    buffers.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffers.memory = V4L2_MEMORY_MMAP;
    return v4l2_ioctl(fd, VIDIOC_S_FMT, &format) == 0 &&
           format.fmt.pix.pixelformat == wish.format && v4l2_ioctl(fd, VIDIOC_S_PARM, &parm) == 0 &&
           v4l2_ioctl(fd, VIDIOC_REQBUFS, &buffers) == 0 && buffers.count == 4;
}

v4l2_buffer Buffer(unsigned index) {
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    return buffer;
}

}  // namespace

// Bytes of a frame in one of the compared formats; 0 for any other format.
unsigned BytesOf(unsigned format, unsigned width, unsigned height) {
    if (std::memcmp(&format, "YUYV", 4) == 0) return width * height * 2;
    if (std::memcmp(&format, "YU12", 4) == 0) return width * height * 3 / 2;
    return 0;
}

int CaptureVideo(const VideoWish& wish) {
    VideoCaptureV4L2Context* capture = nullptr;
    Counted counted{BytesOf(wish.format, wish.width, wish.height)};
    if (VideoCaptureV4L2Open(wish.node.c_str(), wish.format, wish.width, wish.height, 1, wish.fps,
                             &capture) != 0) {
        std::perror("cannot be opened");
        return 2;
    }
    VideoCaptureV4L2SetCallback(
        capture,
        [](const unsigned char*, unsigned bytes, void* param) {
            auto* counter = static_cast<Counted*>(param);
            if (bytes != counter->wantedBytes) WrongSize(bytes, counter->wantedBytes);
            if (write(2, "<", 1) != 1) return;
            ++counter->frames;
            counter->frames.notify_one();
        },
        &counted);
    if (VideoCaptureV4L2Start(capture) != 0) {
        std::perror("cannot be started");
        return 2;
    }
    for (unsigned seen; (seen = counted.frames) < wish.frames;) counted.frames.wait(seen);
    VideoCaptureV4L2Close(capture);
    return 0;
}

int ReadVideo(const VideoWish& wish) {
    const int fd = v4l2_open(wish.node.c_str(), O_RDWR);
    if (fd < 0 || !Configure(fd, wish)) return 2;
    for (unsigned i = 0; i < 4; ++i) {
        v4l2_buffer buffer = Buffer(i);
        // Mapped, as a reader would do: libv4l2 converts only into such memory.
        if (v4l2_ioctl(fd, VIDIOC_QUERYBUF, &buffer) != 0 ||
            v4l2_mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                      int64_t{buffer.m.offset}) == MAP_FAILED ||
            v4l2_ioctl(fd, VIDIOC_QBUF, &buffer) != 0)
            return 2;
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (v4l2_ioctl(fd, VIDIOC_STREAMON, &type) != 0) return 2;
    const unsigned wanted = BytesOf(wish.format, wish.width, wish.height);
    for (unsigned i = 0; i < wish.frames; ++i) {
        v4l2_buffer buffer = Buffer(0);
        if (v4l2_ioctl(fd, VIDIOC_DQBUF, &buffer) != 0) return 2;
        if (buffer.bytesused != wanted) WrongSize(buffer.bytesused, wanted);
        if (write(2, "<", 1) != 1 || v4l2_ioctl(fd, VIDIOC_QBUF, &buffer) != 0) return 2;
    }
    return v4l2_close(fd) == 0 ? 0 : 2;
}

int CaptureSound(const char* device) {
    Recording recording{std::fopen(kSound, "wb"), {kSeconds * kRate * 4}};
    AudioCaptureALSAContext* capture = nullptr;
    const auto onChunk = [](const unsigned char* data, int bytes, long long, void* param) {
        auto* to = static_cast<Recording*>(param);
        const auto size = std::min(static_cast<unsigned>(bytes), to->left.load());
        if (size == 0 || std::fwrite(data, 1, size, to->file) != size) return;
        to->left -= size;
        to->left.notify_one();
    };
    if (recording.file == nullptr || AudioCaptureALSACreate(&capture, onChunk, &recording) != 0 ||
        AudioCaptureALSAStart(capture, device, kRate, 16, 2, 10) != 0)
        return 2;
    for (unsigned left; (left = recording.left) > 0;) recording.left.wait(left);
    AudioCaptureALSAStop(capture);
    AudioCaptureALSADestroy(capture);
    return std::fclose(recording.file) == 0 ? 0 : 2;
}

}  // namespace qvbench
