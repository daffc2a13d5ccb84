// USB devices as somebody describes them: sound streams and camera, with what a product of each
// model has when nothing is said. Pure functions, any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CardsState.h"

namespace qvsim {

struct CameraSize {
    int width = 640;
    int height = 360;
    std::vector<int> fps{30};  // the first is the default
};

struct UsbPlan : UsbDevice {
    int controller = 0;  // each is a bus of its own
    // Names of the mixer's elements; the n-th capture stream is PCM device n, and the n-th playback
    // stream likewise. Nothing: what the model has.
    std::optional<std::vector<std::string>> captures;
    std::optional<std::vector<std::string>> playbacks;
    std::optional<std::vector<CameraSize>> camera;
};

// Fills in what is open in the last device of the list and checks that it can exist beside the
// others. Returns an error message, empty on success.
std::string CompleteLastUsb(std::vector<UsbPlan>& devices);

}  // namespace qvsim
