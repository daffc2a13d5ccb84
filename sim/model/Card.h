// The running card: the state of a board and its channels that is not saved. Plain data, covered by
// the model's lock.
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
#include "PlainFiles.h"
#include "Settings.h"

namespace qvsim {

struct Board {
    BoardState* state = nullptr;
    DeviceClock clock;
    std::vector<std::unique_ptr<NorFlash>> flashes;  // one, or one per channel
};

struct Channel {
    Channel() = default;
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel();
    Board* board = nullptr;
    ChannelState* state = nullptr;
    int index = 0;  // position on its board, whatever the channel record says
    NorFlash* flash = nullptr;
    bool signal = true;
    size_t signalStep = 0;  // next line of the signal's script
    VideoCapture video;
    AudioCapture audio;

    Settings settings;
    uint32_t settingsSeen = 0;  // generation of the file that `settings` was read from
    int settingsFile = -1;      // their file, open for appending
    size_t settingsBytes = 0;   // its length
    std::map<std::string, Bytes> lastRecord;  // by request: the record as it came from the caller
    std::map<uint64_t, int32_t> images;       // handle -> references
    std::map<uint64_t, uint64_t> pinned;      // address -> size
};

inline Channel::~Channel() {
    if (settingsFile >= 0) CloseOwn(settingsFile);
}

enum class NodeKind { kChannel, kEvents, kForeign };

// One open of a simulated node; its registrations end with it.
struct OpenFile {
    NodeKind kind = NodeKind::kForeign;
    Channel* channel = nullptr;
    std::string path;
    std::string record;  // its file among the folder's opens, see OpenRecord.h; empty: none
};

}  // namespace qvsim
