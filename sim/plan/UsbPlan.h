// The description of USB devices: sound streams and camera, with the defaults of each model. Pure
// functions, any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CardsState.h"
#include "Fault.h"

namespace qvsim {

// A fault of a device names one of these as its request, or a command such as "0x05".
inline constexpr const char* kUsbTransfers[] = {"erase", "address", "read", "write",
                                                "poll",  "open",    "any"};

// A device that can be controlled, and has firmware.
struct UsbControl {
    uint32_t firmware = 0x00010000;  // the running version, also in the flash
    uint32_t golden = 0x00010000;
    uint16_t storedCode = 1;
    uint32_t flashSize = 1u << 20;
    uint32_t firmwareOffset = 0x1000;
    int busyPolls = 1;          // how often it reports busy after an erase or a write
    std::vector<Fault> faults;  // counted from each start of the simulation
};

struct CameraSize {
    int width = 640;
    int height = 360;
    std::vector<int> fps{30};  // the first is the default
};

struct UsbPlan : UsbDevice {
    int controller = 0;  // each is a separate bus
    // Names of the mixer's elements; the n-th capture stream is PCM device n, and the n-th playback
    // stream likewise. Nothing: the model's default.
    std::optional<std::vector<std::string>> captures;
    std::optional<std::vector<std::string>> playbacks;
    std::optional<std::vector<CameraSize>> camera;
    std::optional<UsbControl> control;  // nothing: only sound and pictures
};

// Fills in missing values of the last device of the list and checks it against the others. Returns
// an error message, empty on success.
std::string CompleteLastUsb(std::vector<UsbPlan>& devices);

}  // namespace qvsim
