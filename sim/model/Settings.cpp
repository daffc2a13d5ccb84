// Settings as lines of text. Knows no file; LiveCards reads and writes those.
#include "Settings.h"

#include <algorithm>

#include "Hex.h"

namespace qvsim {
namespace {

constexpr char kSettingsFirstLine[] = "qvsim-settings 1";

}  // namespace

std::string Settings::ValueLine(char kind, const std::string& key, const Bytes& value) {
    return std::string(1, kind) + " " + key + " " + ToHex(value.data(), value.size()) + "\n";
}

std::string Settings::Save() const {
    std::string out = kSettingsFirstLine;
    out += '\n';
    for (const auto& [key, value] : m_preset) out += ValueLine('p', key, value);
    for (const auto& [key, value] : m_values) out += ValueLine('v', key, value);
    return out;
}

bool Settings::LoadLine(const std::string& line) {
    if (line == "save") return m_preset = m_values, true;
    if (line == "reload") return m_values = m_preset, true;
    if (line == "off") return m_values.clear(), true;
    const size_t space = line.find(' ', 2);
    if (line.size() < 4 || line[1] != ' ' || space == std::string::npos) return false;
    Bytes value((line.size() - space - 1) / 2);
    if (!FromHex(line.substr(space + 1), value.data(), value.size())) return false;
    if (line[0] != 'p' && line[0] != 'v') return false;
    (line[0] == 'p' ? m_preset : m_values)[line.substr(2, space - 2)] = std::move(value);
    return true;
}

int Settings::Load(const std::string& text) {
    m_values.clear();
    m_preset.clear();
    m_changes.clear();
    int number = 1;
    for (size_t at = 0; at < text.size(); ++number) {
        const size_t end = text.find('\n', at);
        if (end == std::string::npos) return number;
        const std::string line = text.substr(at, end - at);
        if (!(number == 1 ? line == kSettingsFirstLine : LoadLine(line))) return number;
        at = end + 1;
    }
    return 0;
}

}  // namespace qvsim
