// The values that the settings requests of one channel store. Values are bytes under a name; a
// value that was never set reads as the default of the request table or the model. Every change is
// a line, and the lines in their order are the settings. Not locked.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qvsim {

using Bytes = std::vector<uint8_t>;

class Settings {
  public:
    void Put(const std::string& key, Bytes value) {
        m_values[key] = std::move(value);
        m_changes += ValueLine('v', key, m_values[key]);
    }
    // Null when it was never set.
    const Bytes* Find(const std::string& key) const {
        const auto found = m_values.find(key);
        return found == m_values.end() ? nullptr : &found->second;
    }
    void SavePreset() {
        m_preset = m_values;
        m_changes += "save\n";
    }
    void ReloadPreset() {
        m_values = m_preset;
        m_changes += "reload\n";
    }
    void Reset() {  // power-on: presets are kept
        m_values.clear();
        m_changes += "off\n";
    }
    // The changes since the last call, as lines.
    std::string TakeChanges() { return std::exchange(m_changes, {}); }

    // All settings as a text: its version, and as few lines as possible.
    std::string Save() const;
    // Reads such a text, which may have more lines. Returns 0, or the number of the first invalid
    // line; the lines before it take effect. An empty text has no settings.
    int Load(const std::string& text);

  private:
    static std::string ValueLine(char kind, const std::string& key, const Bytes& value);
    bool LoadLine(const std::string& line);

    std::map<std::string, Bytes> m_values;
    std::map<std::string, Bytes> m_preset;  // empty: the defaults
    std::string m_changes;
};

// Bytes for a record that only a driver could fill: recognisable, and different for every request.
inline uint8_t PatternByte(uint32_t requestNumber, size_t index) {
    return static_cast<uint8_t>(requestNumber + 3 * index);
}

}  // namespace qvsim
