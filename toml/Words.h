// What to say about an unknown word: the nearest known word, or all of them. Pure functions, any
// thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string>
#include <vector>

// How many letters must be changed, added or left out to turn one word into the other.
inline size_t WordDistance(const std::string& one, const std::string& other) {
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= one.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= other.size(); ++j) {
            const size_t changed = diagonal + (one[i - 1] == other[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row[other.size()];
}

// "; misspelt for 'serial'?" when a known word is near enough, otherwise "; known are: ...".
inline std::string KnownWords(const std::string& word, const std::vector<std::string>& known) {
    constexpr size_t kLongest = 64;  // words in a file can have any length
    const std::string* nearest = nullptr;
    size_t least = 0;
    for (const std::string& each : known) {
        const size_t distance = WordDistance(word.substr(0, kLongest), each);
        if (distance > std::max<size_t>(1, each.size() / 3) ||
            (nearest != nullptr && distance >= least))
            continue;
        nearest = &each;
        least = distance;
    }
    if (nearest != nullptr) return "; misspelt for '" + *nearest + "'?";
    std::string list = "; known are: ";
    for (size_t i = 0; i < known.size(); ++i) list += (i == 0 ? "" : ", ") + known[i];
    return list;
}
