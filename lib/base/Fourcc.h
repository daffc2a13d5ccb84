// Four-character codes of pixel formats. Pure; any thread.
#pragma once

#include <cstdint>

namespace qv {

// The first character is in the low byte.
constexpr uint32_t Fourcc(const char (&text)[5]) {
    uint32_t code = 0;
    for (int i = 3; i >= 0; --i) code = code << 8 | static_cast<unsigned char>(text[i]);
    return code;
}

}  // namespace qv
