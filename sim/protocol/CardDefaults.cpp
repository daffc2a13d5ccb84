// A card in an ordinary room with an ordinary display behind it: values of those records whose
// meaning is known. What a request sets is not here.
#include "CardDefaults.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>

#include "Card.h"

namespace qvsim {
namespace {

// A display of 1920x1080 at 60 Hz, in the format of EDID 1.3.
constexpr uint8_t kEdid[] = {
    0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00, 0x4d, 0x2d, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00,
    0x01, 0x1e, 0x01, 0x03, 0x80, 0x3c, 0x22, 0x78, 0x0e, 0xee, 0x91, 0xa3, 0x54, 0x4c, 0x99, 0x26,
    0x0f, 0x50, 0x54, 0x21, 0x08, 0x00, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01,
    0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x02, 0x3a, 0x80, 0x18, 0x71, 0x38, 0x2d, 0x40, 0x58, 0x2c,
    0x45, 0x00, 0x58, 0x54, 0x21, 0x00, 0x00, 0x1e, 0x00, 0x00, 0x00, 0xfc, 0x00, 0x53, 0x49, 0x4d,
    0x20, 0x48, 0x44, 0x4d, 0x49, 0x0a, 0x20, 0x20, 0x20, 0x20, 0x00, 0x00, 0x00, 0xfd, 0x00, 0x18,
    0x4b, 0x1e, 0x53, 0x0f, 0x00, 0x0a, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x00, 0x00, 0x00, 0xff,
    0x00, 0x53, 0x49, 0x4d, 0x30, 0x0a, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x00, 0x7b};
static_assert(sizeof kEdid == 128);

// Numbers of 1 or 4 bytes; the others of a record are 0.
struct Default {
    const char* key;
    int32_t value;
};
constexpr Default kDefaults[] = {
    {"Temperature", 45},  // degrees
    {"VideoBrightness", 100},
    {"VideoContrast", 100},
    {"VideoHue", 0},
    {"VideoSaturation", 100},
    {"InputSourceScan", 0},
    {"AVInputSourceLink", 1},
    {"HDMIInfoFrameValidFlags", 0},
    {"VideoInputColorFormat", 0},
    {"VideoInputQuantizationRange", 0},
    {"VideoAutoHAlign", 1},
    {"VideoSamplingPhase", 0},
    {"VideoSamplingPhaseAutoAdjust", 1},
};

Bytes Elements(std::initializer_list<uint32_t> values, uint32_t element) {
    Bytes bytes;
    for (const uint32_t value : values)
        for (uint32_t i = 0; i < element; ++i)
            bytes.push_back(static_cast<uint8_t>(i < 4 ? value >> (8 * i) : value));
    return bytes;
}

Bytes DefaultArray(const std::string& key, uint32_t element) {
    if (key == "VideoInputSources") return Elements({0x101, 0x201, 0x301}, element);
    if (key == "AudioInputSources") return Elements({0x501, 0x601}, element);
    if (key == "StreamInfos") return Elements({0x01, 0x02}, element);
    if (key == "VideoPreferredTimings") return Elements({0x11, 0x12}, element);
    if (key == "EDID") return {std::begin(kEdid), std::end(kEdid)};
    return {};  // custom timings and resolutions: none
}

}  // namespace

const Bytes* Known(const Channel& channel, const std::string& key) {
    if (const Bytes* set = channel.settings.Find(key)) return set;
    const auto record = channel.state->records.find(key);
    return record == channel.state->records.end() ? nullptr : &record->second;
}

Bytes ArrayOf(const Channel& channel, const std::string& key, uint32_t element) {
    const Bytes* known = Known(channel, key);
    return known ? *known : DefaultArray(key, element);
}

Bytes DefaultRecord(const Channel& channel, const std::string& key, uint32_t number, size_t size) {
    // The first source that the card lists.
    if (key == "VideoInputSource" || key == "AudioInputSource") {
        Bytes sources = ArrayOf(channel, key + "s", sizeof(uint32_t));
        sources.resize(size);
        return sources;
    }
    if (key == "VideoInputAspectRatio") return Elements({16, 9}, sizeof(uint32_t));
    for (const Default& row : kDefaults) {
        if (key != row.key) continue;
        Bytes bytes = Elements({static_cast<uint32_t>(row.value)}, sizeof(uint32_t));
        bytes.resize(size);
        return bytes;
    }
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = PatternByte(number, i);
    return bytes;
}

}  // namespace qvsim
