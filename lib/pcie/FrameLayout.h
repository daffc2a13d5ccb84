// Line length and size of a captured picture, by pixel format. Pure functions, any thread.
#pragma once

#include <cstdint>

namespace qv {

struct FrameLayout {
    uint32_t stride;  // bytes per line
    uint32_t size;    // bytes in all; 0 when the format cannot be captured at these dimensions

    friend bool operator==(const FrameLayout&, const FrameLayout&) = default;
};

// Four characters, the first in the low byte.
constexpr uint32_t Fourcc(const char (&text)[5]) {
    uint32_t code = 0;
    for (int i = 3; i >= 0; --i) code = code << 8 | static_cast<unsigned char>(text[i]);
    return code;
}

// Layout of the two buffers of callback capture. Both values are 0 for an unknown format; so are
// they where a dimension does not fit the 16 bits that a capture request has for it.
FrameLayout LayoutOf(uint32_t fourcc, int32_t width, int32_t height);

}  // namespace qv
