// Names and messages for a terminal: text from files and users must not steer it. Pure functions.
#pragma once

#include <string>
#include <string_view>

namespace qvf {

// Readable UTF-8 as it is; every other byte as "\x1b".
std::string Escaped(std::string_view text);

}  // namespace qvf
