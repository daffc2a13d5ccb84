// The saved state of the simulated cards, and the file in the state directory that holds it.
//
// Plain data plus its reader and writer; nothing here behaves like a card. The format is line
// based so that the preload object needs no parser library. Not locked: the model's lock covers it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Fault.h"
#include "PlainFiles.h"
#include "QVCaptureTypes.h"

namespace qvsim {

class Folder;

// Microseconds; 0 everywhere makes a card that answers at once.
struct Latencies {
    uint32_t erasePerSector = 0;  // 4 KiB
    uint32_t programPerPage = 0;  // 256 bytes
    uint32_t readPerKiB = 0;
};

// What happens to a frame that is requested while the capture is stopped. A stop and the close of
// the node cancel earlier requests.
enum class AfterStop {
    kRefuse,        // EINVAL
    kWriteAtOnce,   // accepted; the frame is written without a completion
    kWriteAtStart,  // accepted; written, with a completion, when the next capture starts
};

// How the driver behaves where it has a choice.
struct DriverWays {
    bool reuseHandles = false;  // the last one freed comes first
    AfterStop afterStop = AfterStop::kRefuse;
    bool strictErase = false;   // an erase that is not of whole sectors is refused
    bool strictValues = false;  // a source that the card does not list is refused
    bool busyCapture = false;   // a capture on a channel that already captures is refused
};

const char* AfterStopName(AfterStop afterStop);  // "refuse", "at_once", "at_start"
bool AfterStopFromName(const std::string& name, AfterStop& afterStop);

struct VideoSetup {
    uint32_t width = 1920;
    uint32_t height = 1080;
    double framesPerSecond = 60;  // 0: as fast as frames are requested, nothing sleeps
};

struct AudioSetup {
    double framesPerSecond = 50;  // 0: a frame is always ready
};

// From `atMilliseconds` after the first open of a process on, the channel has a signal or has none.
struct SignalStep {
    uint32_t atMilliseconds = 0;
    bool present = true;
};

struct ChannelState {
    int node = 0;                // N of /dev/videoN
    _QVCAP_CHANNEL_INFO info{};  // returned unchanged; holds the running firmware version
    _QVCAP_PELIX_CAPTURE_INFO family{};
    _QVCAP_FIRMWARE_STORAGE storage{};
    VideoSetup video;
    AudioSetup audio;
    std::vector<SignalStep> signal;
    bool gone = false;  // the node has vanished, until the next power cycle
    // The answers of get requests until something else is set, by the name of the setting.
    std::map<std::string, std::vector<uint8_t>> records;
};

struct BoardState {
    int index = 0;             // the board's name in this directory; unique
    bool sharedFlash = false;  // one flash for all channels instead of one each
    uint32_t flashSize = 16u << 20;
    uint32_t goldenVersion = 0x00010000;
    bool powerLost = false;
    std::vector<ChannelState> channels;
};

// Stored for programs that list USB devices.
struct UsbDevice {
    std::string product;
    std::string serial;
    uint16_t productCode = 0;
    std::string hardware = "A";
};

struct CardsState {
    bool eventNode = true;
    bool eventNodeGone = false;  // has vanished, until the next power cycle
    uint32_t journalLimit = 0;   // bytes; 0: none
    Latencies latencies;
    DriverWays driver;
    std::vector<int> foreignNodes;  // video nodes of another driver
    std::vector<BoardState> boards;
    std::vector<Fault> faults;
    std::vector<UsbDevice> usbDevices;
};

std::string StatePath(const std::string& dir);
// One line for each time that a fault was met.
std::string MetFaultsPath(const std::string& dir);

// All return an error message that says where, empty on success. Loaded state is consistent: boards
// have channels, and no index or node occurs twice. Saving replaces the whole file at once.
std::string LoadState(const std::string& dir, CardsState& state);
// Every process on the folder sees the change. Faults without a slot get one, and are counted from
// 0.
std::string SaveState(const std::string& dir, const CardsState& state);
// The same for a caller that holds the lock of the folder.
std::string SaveState(Folder& folder, CardsState& state);

// Name of the file of one flash inside the directory; `channel` is ignored when shared.
std::string FlashFileName(const BoardState& board, int channel);

}  // namespace qvsim
