#include "Escape.h"

#include <cstdint>

namespace qvf {
namespace {

struct Character {
    uint32_t code = 0;
    size_t length = 0;  // bytes; 0 when they are no UTF-8
};

Character First(std::string_view text) {
    const auto at = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t lead = at(0);
    if (lead < 0x80) return {lead, 1};
    const size_t length = lead >= 0xF0 && lead < 0xF8   ? 4
                          : lead >= 0xE0 && lead < 0xF0 ? 3
                          : lead >= 0xC0 && lead < 0xE0 ? 2
                                                        : 0;
    if (length == 0 || length > text.size()) return {};
    uint32_t code = lead & (0xFFu >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xC0) != 0x80) return {};
        code = code << 6 | (at(i) & 0x3Fu);
    }
    constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF) return {};
    return {code, length};
}

// Characters that are displayed in place and affect nothing else: no controls, no direction marks,
// nothing without a width.
bool IsReadable(uint32_t code) {
    if (code < 0x20 || (code >= 0x7F && code < 0xA0)) return false;
    if (code == 0xAD || code == 0x61C || code == 0xFEFF) return false;
    if ((code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E)) return false;
    return !(code >= 0x2060 && code <= 0x206F) && !(code >= 0xD800 && code <= 0xDFFF);
}

}  // namespace

std::string Escaped(std::string_view text) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    while (!text.empty()) {
        const Character first = First(text);
        const bool readable = first.length > 0 && IsReadable(first.code);
        const size_t length = first.length > 0 ? first.length : 1;
        for (const char c : text.substr(0, length)) {
            if (readable) {
                out += c;
                continue;
            }
            const auto byte = static_cast<uint8_t>(c);
            out += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        }
        text.remove_prefix(length);
    }
    return out;
}

}  // namespace qvf
