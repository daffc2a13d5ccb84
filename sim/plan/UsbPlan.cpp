#include "UsbPlan.h"

#include <algorithm>

#include "NorFlash.h"

namespace qvsim {
namespace {

constexpr size_t kMostStreams = 7;  // each way; with the camera's they fill a device's endpoints
constexpr size_t kMostSizes = 32;
constexpr size_t kMostRates = 16;
constexpr size_t kLongestProduct = 63;
constexpr size_t kLongestName = 31;

struct Family {
    const char* name;  // part of a product name
    std::vector<std::string> captures;
    std::vector<std::string> playbacks;
};

// The models of the family with a camera; for other products the last word of the name is the
// capture stream.
const std::vector<Family>& Families() {
    static const std::vector<Family> families{
        {"Tavo Capture HDMI", {"HDMI", "Mic", "Computer"}, {"Headphone", "HDMI", "Computer"}},
        {"Tavo Capture SDI", {"SDI", "Line In"}, {}},
        {"Tavo Capture DVI", {"HDMI", "Line In"}, {}},
        {"Tavo Capture AIO", {"Digital", "Analog"}, {}},
    };
    return families;
}

bool Contains(const std::string& product, const char* part) {
    return product.find(part) != std::string::npos;
}

void ApplyModel(UsbPlan& device) {
    std::vector<std::string> captures;
    std::vector<std::string> playbacks;
    std::vector<CameraSize> camera;
    for (const Family& family : Families())
        if (Contains(device.product, family.name)) {
            captures = family.captures;
            playbacks = family.playbacks;
            camera = {{640, 360, {30, 60, 15}}, {1280, 720, {30, 15}}, {320, 180, {30}}};
        }
    if (Contains(device.product, "Pelix Capture") || Contains(device.product, "Lumo Capture"))
        captures = {device.product.substr(device.product.rfind(' ') + 1)};
    if (!device.captures) device.captures = std::move(captures);
    if (!device.playbacks) device.playbacks = std::move(playbacks);
    if (!device.camera) device.camera = std::move(camera);
}

// These texts become descriptors and parts of file names.
bool IsPlain(const std::string& text, size_t longest) {
    return !text.empty() && text.size() <= longest &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return c >= ' ' && c <= '~' && c != '/'; });
}

bool ArePlain(const std::vector<std::string>& names) {
    return names.size() <= kMostStreams &&
           std::all_of(names.begin(), names.end(),
                       [](const std::string& name) { return IsPlain(name, kLongestName); });
}

}  // namespace

std::string CompleteLastUsb(std::vector<UsbPlan>& devices) {
    UsbPlan& device = devices.back();
    if (device.serial.empty()) device.serial = "USB" + std::to_string(devices.size() - 1);
    if (device.product.empty()) device.product = "Tavo Capture HDMI";
    ApplyModel(device);
    if (!IsPlain(device.product, kLongestProduct))
        return "product is 1 to 63 characters, none of them '/'";
    if (!IsPlain(device.serial, kLongestName))
        return "serial is 1 to 31 characters, none of them '/'";
    const bool taken = std::any_of(devices.begin(), devices.end() - 1, [&](const UsbPlan& other) {
        return other.serial == device.serial;
    });
    if (taken) return "serial '" + device.serial + "' is another USB device's";
    if (!ArePlain(*device.captures) || !ArePlain(*device.playbacks))
        return "captures and playbacks are up to 7 names of 1 to 31 characters, none of them '/'";
    if (device.hardware.size() != 1) return "hardware is one character";
    if (device.control) {
        const UsbControl& control = *device.control;
        if (control.flashSize % NorFlash::kSector != 0) return "flash_size is of whole sectors";
        if (control.firmwareOffset % NorFlash::kSector != 0 ||
            control.firmwareOffset + 2 * NorFlash::kSector > control.flashSize)
            return "firmware_offset is of whole sectors, two of which are in the flash behind it";
    }
    if (device.camera->size() > kMostSizes) return "a camera has up to 32 sizes";
    for (const CameraSize& size : *device.camera) {
        if (size.width % 2 != 0) return "the width of a camera's picture is even";
        if (size.fps.empty() || size.fps.size() > kMostRates)
            return "fps is a list of 1 to 16 numbers";
    }
    return {};
}

}  // namespace qvsim
