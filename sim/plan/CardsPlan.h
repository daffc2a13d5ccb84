// The description of cards, and the creation of a state directory from it.
//
// Shared by scenario files and the test rig; values that are not given get their defaults here. One
// thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CardsState.h"
#include "Model.h"
#include "UsbPlan.h"

namespace qvsim {

constexpr uint32_t Version(int major, int minor) {
    return static_cast<uint32_t>(major) << 16 | (static_cast<uint32_t>(minor) & 0xFFFF);
}

struct StoredPlan {
    uint32_t version = 0;
    uint16_t compatibilityCode = 1;
};

struct BoardPlan {
    std::string family = "Pelix Capture";
    std::string product;  // default: the family's first word and " SIM"
    uint16_t productCode = 0x0101;
    char hardware = 'A';
    std::string serial;  // default: "SIM" and the board index
    int index = -1;      // -1: the lowest free one
    int channels = 1;
    uint32_t firmware = Version(1, 0);
    bool noStoredHeader = false;
    std::optional<StoredPlan> stored;  // default: the running version, compatibility code 1
    uint32_t storageWords[3] = {0, 0, 0};
    uint32_t firmwareOffset = 0x100000;
    uint32_t flashSize = 16u << 20;
    uint32_t golden = Version(1, 0);
    int firstNode = -1;  // -1: after the highest node given so far
    VideoSetup video;
    AudioSetup audio;
    std::vector<SignalStep> signal;
    std::map<std::string, std::vector<uint8_t>> records;  // see ChannelState
    std::function<void(ChannelState&)> editChannel;       // changes each channel's records
};

struct CardsPlan {
    bool eventNode = true;
    Latencies latencies;
    DriverWays driver;
    uint32_t journalLimit = 0;  // bytes; 0: none
    std::vector<int> foreignNodes;
    std::vector<BoardPlan> boards;
    std::vector<Fault> faults;
    std::vector<UsbPlan> usbDevices;
};

// Fills in missing values and checks the result: unique boards and nodes, texts that fit, a
// firmware area inside the flash. Returns an error message, empty on success.
std::string CompletePlan(CardsPlan& plan);

// Writes a complete plan into `dir`, which is created if it is missing; on request with firmware
// packages for the cards in `dir`/packages. Writes nothing if the directory already holds cards,
// and leaves nothing behind after a failure. Returns an error message, empty on success.
std::string LayOut(const CardsPlan& plan, const std::string& dir, bool packages = false);

// The cards of a complete plan, only in this process. Returns an error message, empty on success.
std::string MakeInMemory(const CardsPlan& plan, std::shared_ptr<Model>& out);

}  // namespace qvsim
