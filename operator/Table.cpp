// Lays texts out in columns, escaped. Prints nothing.
#include "Table.h"

#include <algorithm>

#include "Escape.h"

namespace qvo {
namespace {

constexpr size_t kGap = 2;

// Number of UTF-8 characters: all bytes except continuation bytes.
size_t Width(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

std::string Line(const std::vector<std::string>& row, const std::vector<size_t>& widths) {
    std::string line;
    size_t due = 0;  // spaces before the next text
    for (size_t i = 0; i < row.size(); ++i) {
        if (!row[i].empty()) {
            line += std::string(due, ' ') + row[i];
            due = 0;
        }
        due += widths[i] - Width(row[i]) + kGap;
    }
    return line + "\n";
}

}  // namespace

std::string TableText(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::vector<std::string>> shown = rows;
    std::vector<size_t> widths;
    for (std::vector<std::string>& row : shown) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            row[i] = qvf::Escaped(row[i]);
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    }
    std::string text;
    for (const std::vector<std::string>& row : shown) text += Line(row, widths);
    return text;
}

}  // namespace qvo
