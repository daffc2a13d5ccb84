// Escapes names and messages for a terminal: text from files and users must not control it. Pure
// functions.
#pragma once

#include <string>
#include <string_view>

namespace qvf {

// Readable UTF-8 unchanged; every other byte as in "\x1b".
std::string Escaped(std::string_view text);

}  // namespace qvf
