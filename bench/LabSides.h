// What a process of the lab's benchmark does by itself: the library's captures, and a bare loop
// over libv4l2 beside them. Each prints '<' to standard error for a frame. Results are exit
// statuses.
#pragma once

#include <cstdint>
#include <string>

namespace qvbench {

inline constexpr unsigned kSeconds = 3;  // of sound
inline constexpr unsigned kRate = 48000;
inline constexpr uintmax_t kSoundBytes = uintmax_t{kSeconds} * kRate * 4;
inline constexpr char kSound[] = "/tmp/bench.raw";

struct VideoWish {
    std::string node;
    unsigned width, height;
    unsigned format;  // V4L2's code
    int fps;
    unsigned frames;
};

// Of a frame in one of the formats that are compared here; 0: another one.
unsigned BytesOf(unsigned format, unsigned width, unsigned height);

// Status 3 when a frame is not of its format's size.
int CaptureVideo(const VideoWish& wish);
// The least that a program needs that reads through libv4l2.
int ReadVideo(const VideoWish& wish);
// Writes kSoundBytes to kSound.
int CaptureSound(const char* device);

}  // namespace qvbench
