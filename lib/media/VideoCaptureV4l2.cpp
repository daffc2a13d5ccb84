// V4L2 capture: opening, memory-mapped streaming and the capture thread; see VideoCaptureV4l2.h.
#include "VideoCaptureV4l2.h"

#include <fcntl.h>
#include <libv4l2.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "media/CaptureThread.h"

namespace {

constexpr int kFailed = -1;
constexpr int kClosed = -1;
constexpr int kPollMs = 10;                // limits how long a stop takes
constexpr useconds_t kErrorPause = 10000;  // µs between attempts on an unplugged device

v4l2_buffer Buffer(uint32_t index) {
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    return buffer;
}

bool CanStream(int fd) {
    v4l2_capability capability{};
    if (v4l2_ioctl(fd, VIDIOC_QUERYCAP, &capability) < 0) return false;
    constexpr uint32_t kNeeded = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    return (capability.capabilities & kNeeded) == kNeeded;
}

bool SetFormat(int fd, uint32_t pixelFormat, uint32_t width, uint32_t height) {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = width;
    format.fmt.pix.height = height;
    format.fmt.pix.pixelformat = pixelFormat;
    return v4l2_ioctl(fd, VIDIOC_TRY_FMT, &format) >= 0 &&
           v4l2_ioctl(fd, VIDIOC_S_FMT, &format) >= 0;
}

v4l2_streamparm StreamParm() {
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return parm;
}

// A node that refuses the interval keeps its own.
void SetInterval(int fd, int numerator, int denominator) {
    v4l2_streamparm parm = StreamParm();
    // Deliberate: tests for equality, not for the bit. A node with further capabilities keeps its
    // interval.
    if (ioctl(fd, VIDIOC_G_PARM, &parm) >= 0 && numerator >= 1 && denominator >= 1 &&
        parm.parm.capture.capability == V4L2_CAP_TIMEPERFRAME) {
        parm.parm.capture.timeperframe.numerator = static_cast<uint32_t>(numerator);
        parm.parm.capture.timeperframe.denominator = static_cast<uint32_t>(denominator);
        ioctl(fd, VIDIOC_S_PARM, &parm);
    }
    parm = StreamParm();
    ioctl(fd, VIDIOC_G_PARM, &parm);
}

bool Configure(int fd, uint32_t pixelFormat, uint32_t width, uint32_t height, int numerator,
               int denominator) {
    if (!CanStream(fd) || !SetFormat(fd, pixelFormat, width, height)) return false;
    SetInterval(fd, numerator, denominator);
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return v4l2_ioctl(fd, VIDIOC_G_FMT, &format) >= 0;
}

// Ends the stream and every mapping; for an empty slot the system refuses the call.
void Unmap(VideoCaptureV4L2Context* ctx) {
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    v4l2_ioctl(ctx->fd, VIDIOC_STREAMOFF, &type);
    for (VideoCaptureV4L2Buffer& slot : ctx->buffers) {
        v4l2_munmap(slot.address, slot.length);
        slot = {};  // a later failure must not unmap a new mapping at this address
    }
}

bool MapBuffer(VideoCaptureV4L2Context* ctx, uint32_t index) {
    v4l2_buffer buffer = Buffer(index);
    if (v4l2_ioctl(ctx->fd, VIDIOC_QUERYBUF, &buffer) < 0) return false;
    void* address = v4l2_mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, ctx->fd,
                              int64_t{buffer.m.offset});
    if (address == MAP_FAILED || address == nullptr) return false;
    ctx->buffers[index] = {address, buffer.length};
    return true;
}

// Requests the buffers, and maps and queues as many as there are slots.
bool MapAndQueue(VideoCaptureV4L2Context* ctx) {
    v4l2_requestbuffers request{};
    request.count = kV4L2Buffers;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (v4l2_ioctl(ctx->fd, VIDIOC_REQBUFS, &request) < 0) return false;
    const uint32_t count = std::min<uint32_t>(request.count, kV4L2Buffers);
    if (count == 0) return false;  // nothing could ever be delivered
    for (uint32_t i = 0; i < count; ++i)
        if (!MapBuffer(ctx, i)) return false;
    for (uint32_t i = 0; i < count; ++i) {
        v4l2_buffer buffer = Buffer(i);
        v4l2_ioctl(ctx->fd, VIDIOC_QBUF, &buffer);
    }
    return true;
}

// Delivers one frame, if there is one.
void CaptureFrame(VideoCaptureV4L2Context* ctx) {
    pollfd waiting{ctx->fd, POLLIN, 0};
    const int ready = poll(&waiting, 1, kPollMs);
    if (ready != 1 || waiting.revents != POLLIN) {
        if (ready != 0) usleep(kErrorPause);  // an error returns at once, again and again
        return;
    }
    v4l2_buffer buffer = Buffer(0);
    if (v4l2_ioctl(ctx->fd, VIDIOC_DQBUF, &buffer) == -1) {
        if (errno != EAGAIN) usleep(kErrorPause);
        return;
    }
    if (buffer.index >= kV4L2Buffers || ctx->buffers[buffer.index].address == nullptr) {
        usleep(kErrorPause);
        return;
    }
    const VideoCaptureV4L2Buffer& slot = ctx->buffers[buffer.index];
    if (ctx->callback != nullptr) {
        const size_t used = std::min<size_t>(buffer.bytesused, slot.length);
        ctx->callback(static_cast<const unsigned char*>(slot.address), static_cast<unsigned>(used),
                      ctx->param);
    }
    v4l2_ioctl(ctx->fd, VIDIOC_QBUF, &buffer);
}

void Release(VideoCaptureV4L2Context* ctx) {
    if (ctx->fd != kClosed) v4l2_close(ctx->fd);
    ctx->fd = kClosed;
    delete ctx;
}

void UnmapAndRelease(VideoCaptureV4L2Context* ctx) {
    Unmap(ctx);
    Release(ctx);
}

constexpr qv::CaptureWays<VideoCaptureV4L2Context> kWays = {"VideoCapture", CaptureFrame,
                                                            UnmapAndRelease};
using Thread = qv::CaptureThread<VideoCaptureV4L2Context, kWays>;

}  // namespace

int VideoCaptureV4L2Open(const char* devicePath, unsigned int pixelFormat, unsigned int width,
                         unsigned int height, int intervalNumerator, int intervalDenominator,
                         VideoCaptureV4L2Context** out) {
    if (devicePath == nullptr) return kFailed;
    const int fd = v4l2_open(devicePath, O_RDWR | O_NONBLOCK);
    if (fd < 0) return kFailed;
    VideoCaptureV4L2Context* ctx = nullptr;
    if (Configure(fd, pixelFormat, width, height, intervalNumerator, intervalDenominator))
        ctx = new (std::nothrow) VideoCaptureV4L2Context{};
    if (ctx == nullptr) {
        v4l2_close(fd);
        return kFailed;
    }
    snprintf(ctx->path, sizeof ctx->path, "%s", devicePath);
    ctx->fd = fd;
    ctx->pixelFormat = pixelFormat;
    ctx->width = width;
    ctx->height = height;
    if (out != nullptr)
        *out = ctx;
    else
        Release(ctx);  // nobody could ever close it
    return 0;
}

void VideoCaptureV4L2SetCallback(VideoCaptureV4L2Context* ctx, QV_VIDEO_CAPTURE_CALLBACK callback,
                                 void* param) {
    if (ctx == nullptr) return;
    ctx->callback = callback;
    ctx->param = param;
}

int VideoCaptureV4L2Start(VideoCaptureV4L2Context* ctx) {
    if (ctx == nullptr || ctx->fd == kClosed || ctx->hasThread) return kFailed;
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (MapAndQueue(ctx) && v4l2_ioctl(ctx->fd, VIDIOC_STREAMON, &type) != -1 &&
        Thread::Start(ctx) == 0)
        return 0;
    Unmap(ctx);
    return kFailed;
}

void VideoCaptureV4L2Stop(VideoCaptureV4L2Context* ctx) {
    if (ctx == nullptr) return;
    if (Thread::IsInside(ctx)) return Thread::AskToEnd(ctx);
    if (!ctx->hasThread) return;
    Thread::End(ctx);
    Unmap(ctx);
}

void VideoCaptureV4L2Close(VideoCaptureV4L2Context* ctx) {
    if (ctx == nullptr) return;
    if (Thread::IsInside(ctx)) return Thread::ReleaseAfterCallback(ctx);
    VideoCaptureV4L2Stop(ctx);
    Release(ctx);
}
