// Text of JSON values. Pure functions, any thread.
#pragma once

#include <cstdio>
#include <string>

namespace qvsim {

// A quoted string. Bytes beyond ASCII become characters of Latin-1, because the encoding of a
// device's text is unknown.
inline std::string JsonText(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte >= 0x20 && byte < 0x7F) {
            out += c;
        } else {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", byte);
            out += code;
        }
    }
    return out + "\"";
}

inline const char* JsonFlag(bool flag) { return flag ? "true" : "false"; }

}  // namespace qvsim
