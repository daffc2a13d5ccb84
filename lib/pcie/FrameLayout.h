// Line length and size of a captured picture, by pixel format. Pure functions, any thread.
#pragma once

#include <cstdint>

#include "base/Fourcc.h"

namespace qv {

struct FrameLayout {
    uint32_t stride;  // bytes per line
    uint32_t size;    // bytes in all; 0 when the format cannot be captured at these dimensions

    friend bool operator==(const FrameLayout&, const FrameLayout&) = default;
};

// Layout of the two buffers of callback capture. Both values are 0 for an unknown format, and when
// a dimension does not fit the 16 bits that a capture request has for it.
FrameLayout LayoutOf(uint32_t fourcc, int32_t width, int32_t height);

}  // namespace qv
