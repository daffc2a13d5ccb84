#include "Settings.h"

#include <algorithm>

#include "Hex.h"

namespace qvsim {
namespace {

void Append(std::string& out, char kind, const std::map<std::string, Bytes>& values) {
    for (const auto& [key, value] : values)
        out += std::string(1, kind) + " " + key + " " + ToHex(value.data(), value.size()) + "\n";
}

}  // namespace

std::string Settings::Save() const {
    std::string out;
    Append(out, 'v', values_);
    Append(out, 'p', preset_);
    return out;
}

void Settings::Load(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        const size_t space = line.find(' ', 2);
        if (line.size() < 3 || space == std::string::npos) continue;
        Bytes value((line.size() - space - 1) / 2);
        if (!FromHex(line.substr(space + 1), value.data(), value.size())) continue;
        (line[0] == 'p' ? preset_ : values_)[line.substr(2, space - 2)] = value;
    }
}

}  // namespace qvsim
