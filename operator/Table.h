// Rows of text in columns. Pure function.
#pragma once

#include <string>
#include <vector>

namespace qvo {

// Each column as wide as its widest text, two blanks between them, none at the end of a line. Texts
// are escaped first: one character of theirs is one place.
std::string TableText(const std::vector<std::vector<std::string>>& rows);

}  // namespace qvo
