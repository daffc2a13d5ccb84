// The running card: what a board and its channels hold beside their saved state.
// Plain data, covered by the model's lock.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Capture.h"
#include "CardsState.h"
#include "DeviceClock.h"
#include "NorFlash.h"
#include "Settings.h"

namespace qvsim {

struct Board {
    BoardState* state = nullptr;
    DeviceClock clock;
    std::vector<std::unique_ptr<NorFlash>> flashes;  // one, or one per channel
};

struct Channel {
    Board* board = nullptr;
    ChannelState* state = nullptr;
    int index = 0;  // position on its board, whatever the channel record says
    NorFlash* flash = nullptr;
    bool gone = false;
    bool signal = true;
    size_t signalStep = 0;  // next line of the signal's script
    VideoCapture video;
    AudioCapture audio;

    Settings settings;
    std::map<std::string, Bytes> lastRecord;  // by request: the record as it came from the caller
    std::map<uint64_t, int32_t> images;       // handle -> references
    std::map<uint64_t, uint64_t> pinned;      // address -> size
};

enum class NodeKind { kChannel, kEvents, kForeign };

// One open of a simulated node; what it registered goes away with it.
struct OpenFile {
    NodeKind kind = NodeKind::kForeign;
    Channel* channel = nullptr;
    std::string path;
};

}  // namespace qvsim
