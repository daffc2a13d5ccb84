// Compares V4L2 streaming with a bare loop on the same scripted node, and the cost of PCM capture
// with `arecord`. Prints rows of a table; exit status 1 when a target is missed.
//
// This program supplies the node: it defines v4l2_open and the others, and a frame is always ready.
// ALSA's `null` device delivers as fast as it is read, so the cost of a second of sound is
// processor time per second delivered.
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "AudioAlsa.h"
#include "Report.h"
#include "VideoCaptureV4l2.h"

// ---- Allocations on the thread that looks ------------------------------------------------------

namespace {
thread_local bool t_counting = false;
std::atomic<unsigned long> g_allocations{0};
}  // namespace

extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
    if (t_counting) ++g_allocations;
    return __libc_malloc(size);
}

// ---- The node ----------------------------------------------------------------------------------

namespace {

constexpr uint32_t kFrameSize = 640 * 360 * 2;
std::array<unsigned char, kFrameSize> g_memory[4];
std::array<uint32_t, 8> g_queue;
uint32_t g_first = 0;
uint32_t g_last = 0;

}  // namespace

extern "C" {

int v4l2_open(const char*, int, ...) { return eventfd(1, EFD_CLOEXEC); }  // always readable
int v4l2_close(int fd) { return close(fd); }
void* v4l2_mmap(void*, size_t, int, int, int, int64_t offset) {
    return g_memory[static_cast<size_t>(offset) / 4096].data();
}
int v4l2_munmap(void*, size_t) { return 0; }
int v4l2_ioctl(int, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* record = va_arg(arguments, void*);
    va_end(arguments);
    auto* buffer = static_cast<v4l2_buffer*>(record);
    switch (request) {
        case VIDIOC_QUERYCAP:
            static_cast<v4l2_capability*>(record)->capabilities =
                V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
            return 0;
        case VIDIOC_REQBUFS:
            g_first = g_last = 0;
            static_cast<v4l2_requestbuffers*>(record)->count = 4;
            return 0;
        case VIDIOC_QUERYBUF:
            buffer->length = kFrameSize;
            buffer->m.offset = buffer->index * 4096;
            return 0;
        case VIDIOC_QBUF:
            g_queue[g_last++ % g_queue.size()] = buffer->index;
            return 0;
        case VIDIOC_DQBUF:
            if (g_first == g_last) return -1;
            buffer->index = g_queue[g_first++ % g_queue.size()];
            buffer->bytesused = kFrameSize;
            return 0;
        default:
            return 0;
    }
}
}

namespace {

using qvbench::g_missed;
using qvbench::Median;
using qvbench::Row;
using qvbench::Text;

double CpuSeconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// ---- V4L2 --------------------------------------------------------------------------------------

constexpr uint32_t kFrames = 200000;

// Reads a line of the picture, the least that a caller does.
uint32_t g_sum = 0;
void Look(const unsigned char* frame) {
    for (uint32_t i = 0; i < 1280; i += 64) g_sum += frame[i];
}

struct Stream {
    std::atomic<uint32_t> frames{0};
    std::atomic<double> seconds{0};
    double start = 0;
};

// Called on the capture's thread: its own processor time, from the first frame to the last.
void OnFrame(const unsigned char* frame, unsigned int, void* param) {
    auto* stream = static_cast<Stream*>(param);
    Look(frame);
    const uint32_t number = ++stream->frames;
    if (number == 1) stream->start = CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    if (number == kFrames) stream->seconds = CpuSeconds(CLOCK_THREAD_CPUTIME_ID) - stream->start;
}

double LibraryStream() {
    VideoCaptureV4L2Context* capture = nullptr;
    Stream stream;
    if (VideoCaptureV4L2Open("/dev/video0", V4L2_PIX_FMT_YUYV, 640, 360, 1, 30, &capture) != 0)
        exit(2);
    VideoCaptureV4L2SetCallback(capture, OnFrame, &stream);
    if (VideoCaptureV4L2Start(capture) != 0) exit(2);
    while (stream.frames < kFrames) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    VideoCaptureV4L2Close(capture);
    return stream.seconds;
}

double BareStream() {
    const int fd = v4l2_open("/dev/video0", 0);
    v4l2_requestbuffers request{};
    v4l2_ioctl(fd, VIDIOC_REQBUFS, &request);
    for (uint32_t i = 0; i < 4; ++i) {
        v4l2_buffer buffer{};
        buffer.index = i;
        v4l2_ioctl(fd, VIDIOC_QBUF, &buffer);
    }
    double seconds = 0;
    std::thread thread([&] {
        double start = 0;
        for (uint32_t number = 0; number < kFrames;) {
            pollfd waiting{fd, POLLIN, 0};
            if (poll(&waiting, 1, 10) != 1 || waiting.revents != POLLIN) continue;
            v4l2_buffer buffer{};
            buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            buffer.memory = V4L2_MEMORY_MMAP;
            if (v4l2_ioctl(fd, VIDIOC_DQBUF, &buffer) == -1) continue;
            Look(g_memory[buffer.index].data());
            if (++number == 1) start = CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
            v4l2_ioctl(fd, VIDIOC_QBUF, &buffer);
        }
        seconds = CpuSeconds(CLOCK_THREAD_CPUTIME_ID) - start;
    });
    thread.join();
    v4l2_close(fd);
    return seconds;
}

void Video() {
    std::vector<double> ratios;
    std::vector<double> nanoseconds;
    for (int round = 0; round < 9; ++round) {
        const double library = LibraryStream();
        ratios.push_back(library / BareStream());
        nanoseconds.push_back(library / kFrames * 1e9);
    }
    Row("V4L2 streaming: CPU per frame / a bare mmap loop's",
        Text("%.3f (%.0f ns a frame)", Median(ratios), Median(nanoseconds)), "at most 1.05",
        Median(ratios) <= 1.05);
}

// ---- Sound -------------------------------------------------------------------------------------

constexpr uint32_t kChunks = 60000;  // ten minutes

struct Sound {
    std::atomic<uint32_t> chunks{0};
    std::atomic<double> seconds{0};
    std::atomic<unsigned long> allocations{0};
    double start = 0;
};

void OnChunk(const unsigned char*, int, long long, void* param) {
    auto* sound = static_cast<Sound*>(param);
    const uint32_t number = ++sound->chunks;
    if (number == 10) {
        g_allocations = 0;
        t_counting = true;
        sound->start = CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    } else if (number == kChunks) {
        t_counting = false;
        sound->seconds = CpuSeconds(CLOCK_THREAD_CPUTIME_ID) - sound->start;
        sound->allocations = g_allocations.load();
    }
}

// Processor time of arecord for as much sound from the same device, or nothing without it.
double ArecordSeconds() {
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string duration = std::to_string(kChunks / 100);
        execlp("arecord", "arecord", "-q", "-D", "silence", "-f", "S16_LE", "-r", "48000", "-c",
               "2", "--period-size=480", "-t", "raw", "-d", duration.c_str(), "/dev/null", nullptr);
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid || status != 0) return 0;
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void Audio() {
    setenv("ALSA_CONFIG_PATH", QV_ASOUND_CONF, 1);
    AudioCaptureALSAContext* capture = nullptr;
    Sound sound;
    if (AudioCaptureALSACreate(&capture, OnChunk, &sound) != 0) exit(2);
    if (AudioCaptureALSAStart(capture, "silence", 48000, 16, 2, 10) != 0) {
        fprintf(stderr, "ALSA's null device cannot be captured from\n");
        exit(2);
    }
    while (sound.chunks < kChunks) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    AudioCaptureALSAStop(capture);
    AudioCaptureALSADestroy(capture);
    const double perSecond = sound.seconds / (kChunks / 100.0) * 1e6;
    const double peer = ArecordSeconds() / (kChunks / 100.0) * 1e6;
    Row("PCM capture, 10 ms chunks: allocations per chunk",
        Text("%.4f", static_cast<double>(sound.allocations) / kChunks), "0",
        sound.allocations == 0);
    Row("the same: CPU per second of sound; `arecord` with the same period beside it",
        peer > 0 ? Text("%.0f us; %.0f us", perSecond, peer)
                 : Text("%.0f us; arecord is not here (package alsa-utils)", perSecond),
        "reported", true);
}

}  // namespace

int main() {
    Video();
    Audio();
    return g_missed == 0 ? 0 : 1;
}
