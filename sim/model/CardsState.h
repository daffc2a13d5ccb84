// What a state directory says about the simulated cards, and the file it is kept in.
//
// Plain data plus its reader and writer; nothing here behaves like a card. The format is line
// based so that the preload object needs no parser library. Not locked: the model's lock covers it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Fault.h"
#include "QVCaptureTypes.h"

namespace qvsim {

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

// Both return an empty text, or what went wrong and where. Saving replaces the file as a whole.
std::string LoadState(const std::string& dir, CardsState& state);
std::string SaveState(const std::string& dir, const CardsState& state);

// Name of the file of one flash inside the directory; `channel` is not looked at when shared.
std::string FlashFileName(const BoardState& board, int channel);

// open(2) with a number far above those that a program gets: the simulation's own files must not
// take a number that the program under it would have been given, such as a closed 0.
int OpenOutOfTheWay(const std::string& path, int flags);
// The same for a descriptor that is open already; takes `fd`, which may be -1.
int OutOfTheWay(int fd);

// The whole file; empty when there is none.
std::string ReadText(const std::string& path);

// Adds to the end of a file, which is made when there is none.
bool AppendText(const std::string& path, const std::string& text);

// Writes the whole text to a temporary file beside `path` and renames it into place.
bool ReplaceFile(const std::string& path, const std::string& text);

}  // namespace qvsim
