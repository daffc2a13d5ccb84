// The processes of the lab's benchmark: the library's captures, and a bare loop over libv4l2 for
// comparison. Each prints '<' to standard error for a frame. Results are exit statuses.
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

// Bytes of a frame in one of the compared formats; 0 for any other format.
unsigned BytesOf(unsigned format, unsigned width, unsigned height);

// Status 3 when a frame is not of its format's size.
int CaptureVideo(const VideoWish& wish);
// The simplest program that reads through libv4l2.
int ReadVideo(const VideoWish& wish);
// Writes kSoundBytes to kSound.
int CaptureSound(const char* device);

}  // namespace qvbench
