// What the settings requests of one channel keep. Values are bytes under a name; what was never
// set reads as the default that the request table or the model gives. Every change is a line, and
// the lines in their order are the settings. Not locked.
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
        values_[key] = std::move(value);
        changes_ += ValueLine('v', key, values_[key]);
    }
    // Null when it was never set.
    const Bytes* Find(const std::string& key) const {
        const auto found = values_.find(key);
        return found == values_.end() ? nullptr : &found->second;
    }
    void SavePreset() {
        preset_ = values_;
        changes_ += "save\n";
    }
    void ReloadPreset() {
        values_ = preset_;
        changes_ += "reload\n";
    }
    void Reset() {  // power-on: presets stay
        values_.clear();
        changes_ += "off\n";
    }
    // As lines, since the last look.
    std::string TakeChanges() { return std::exchange(changes_, {}); }

    // The whole as a text: its version, and as few lines as can be.
    std::string Save() const;
    // Of such a text with more lines behind; 0, or the number of the first line that is none. An
    // empty text has no settings. The lines before it are taken.
    int Load(const std::string& text);

  private:
    static std::string ValueLine(char kind, const std::string& key, const Bytes& value);
    bool LoadLine(const std::string& line);

    std::map<std::string, Bytes> values_;
    std::map<std::string, Bytes> preset_;  // empty: the defaults
    std::string changes_;
};

// Bytes of a record that only a driver could fill: recognisable, and different for every request.
inline uint8_t PatternByte(uint32_t requestNumber, size_t index) {
    return static_cast<uint8_t>(requestNumber + 3 * index);
}

}  // namespace qvsim
