// Rows of the table that scripts/bench collects, and a few statistics. One program each; not
// thread-safe.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace qvbench {

// Targets missed by this program; they decide its exit status.
inline int g_missed = 0;

inline void Row(const char* what, const std::string& measured, const char* target, bool met) {
    printf("| %s | %s | %s |%s\n", what, measured.c_str(), target, met ? "" : " **missed**");
    fflush(stdout);
    g_missed += met ? 0 : 1;
}

template <class... Values>
std::string Text(const char* format, Values... values) {
    char text[200];
    snprintf(text, sizeof text, format, values...);
    return text;
}

// part 0.5: the median. Of at least one value.
inline double Percentile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    const auto place = static_cast<size_t>(part * static_cast<double>(values.size()));
    return values[std::min(values.size() - 1, place)];
}
inline double Median(const std::vector<double>& values) { return Percentile(values, 0.5); }

}  // namespace qvbench
