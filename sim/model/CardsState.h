// What a state directory says about the simulated cards, and the file it is kept in.
//
// Plain data plus its reader and writer; nothing here behaves like a card. The format is line
// based so that the preload object needs no parser library. Not locked: the model's lock covers it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Fault.h"
#include "Files.h"
#include "QVCaptureTypes.h"

namespace qvsim {

class Folder;

// Microseconds; 0 everywhere makes a card that answers at once.
struct Latencies {
    uint32_t erasePerSector = 0;  // 4 KiB
    uint32_t programPerPage = 0;  // 256 bytes
    uint32_t readPerKiB = 0;
};

// What becomes of a frame that is asked for while the capture is stopped. A stop and the close of
// the node take back what was asked for before.
enum class AfterStop {
    kRefuse,        // EINVAL
    kWriteAtOnce,   // accepted; the frame is written without anybody being told
    kWriteAtStart,  // accepted; written, with a completion, when the next capture starts
};

// How the driver behaves where it has the choice.
struct DriverWays {
    bool reuseHandles = false;  // the one freed last comes first
    AfterStop afterStop = AfterStop::kRefuse;
    bool strictErase = false;   // an erase that is not of whole sectors is refused
    bool strictValues = false;  // a source that the card does not list is refused
    bool busyCapture = false;   // a capture on a channel that captures already is refused
};

const char* AfterStopName(AfterStop afterStop);  // "refuse", "at_once", "at_start"
bool AfterStopFromName(const std::string& name, AfterStop& afterStop);

struct VideoSetup {
    uint32_t width = 1920;
    uint32_t height = 1080;
    double framesPerSecond = 60;  // 0: as fast as frames are asked for, nothing sleeps
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
    _QVCAP_CHANNEL_INFO info{};  // handed out as it is; holds the running firmware version
    _QVCAP_PELIX_CAPTURE_INFO family{};
    _QVCAP_FIRMWARE_STORAGE storage{};
    VideoSetup video;
    AudioSetup audio;
    std::vector<SignalStep> signal;
    bool gone = false;  // the node has vanished, until the next power cycle
    // What a get request answers as long as nothing else was set, by the name of the setting.
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

// Kept for whoever lists USB devices.
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
    std::vector<int> foreignNodes;  // video nodes of somebody else's driver
    std::vector<BoardState> boards;
    std::vector<Fault> faults;
    std::vector<UsbDevice> usbDevices;
};

std::string StatePath(const std::string& dir);
// One line for each time that a fault was met.
std::string MetFaultsPath(const std::string& dir);

// All return an error message that says where, empty on success. What was loaded is a whole: boards
// have channels, and no index or node is there twice. Saving replaces the file as a whole.
std::string LoadState(const std::string& dir, CardsState& state);
// Every process on the folder learns of it. Faults without a slot get one, and are counted from 0.
std::string SaveState(const std::string& dir, const CardsState& state);
// The same for who holds the lock of the folder.
std::string SaveState(Folder& folder, CardsState& state);

// Name of the file of one flash inside the directory; `channel` is not looked at when shared.
std::string FlashFileName(const BoardState& board, int channel);

}  // namespace qvsim
