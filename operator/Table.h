// Rows of text in columns. Pure function.
#pragma once

#include <string>
#include <vector>

namespace qvo {

// Each column is as wide as its widest text, with two spaces between columns and none at the end of
// a line. Texts are escaped first, so that each character takes one column.
std::string TableText(const std::vector<std::vector<std::string>>& rows);

}  // namespace qvo
