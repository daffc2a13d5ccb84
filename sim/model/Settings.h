// What the settings requests of one channel keep. Values are bytes under a name; what was never
// set reads as the default that the request table or the model gives. Not locked.
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
        changed_ = true;
    }
    // Null when it was never set.
    const Bytes* Find(const std::string& key) const {
        const auto found = values_.find(key);
        return found == values_.end() ? nullptr : &found->second;
    }
    void SavePreset() {
        preset_ = values_;
        changed_ = true;
    }
    void ReloadPreset() {
        values_ = preset_;
        changed_ = true;
    }
    // Since the last look.
    bool Changed() { return std::exchange(changed_, false); }
    void Reset() { values_.clear(); }  // power-on: presets stay

    // One line per value; Load() skips what it cannot read.
    std::string Save() const;
    void Load(const std::string& text);

  private:
    std::map<std::string, Bytes> values_;
    std::map<std::string, Bytes> preset_;  // empty: the defaults
    bool changed_ = false;
};

// Bytes of a record that only a driver could fill: recognisable, and different for every request.
inline uint8_t PatternByte(uint32_t requestNumber, size_t index) {
    return static_cast<uint8_t>(requestNumber + 3 * index);
}

}  // namespace qvsim
