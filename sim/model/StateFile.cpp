// The state file: one item per line, a word and key=value pairs; texts and records as hexadecimal.
// Reading is strict: if somebody edited the file, or a disk damaged it, the error names the line.
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <set>

#include "CardsState.h"
#include "Folder.h"
#include "Hex.h"

namespace qvsim {
namespace {

constexpr char kStateFirstLine[] = "qvsim-cards 2";
constexpr char kAnyStateFirstLine[] = "qvsim-cards ";
constexpr int kMaxNode = 9999;
constexpr uint32_t kStateSector = 4096;
constexpr uint32_t kLargestFlash = 1u << 30;
constexpr size_t kLargestValue = 64u << 10;

// One parsed line. Remembers what is wrong with it, or missing, for Good().
class Line {
  public:
    explicit Line(const std::string& text) {
        for (size_t at = 0; at < text.size();) {
            const size_t end = std::min(text.find(' ', at), text.size());
            const std::string item = text.substr(at, end - at);
            const size_t equals = item.find('=');
            if (at == 0)
                m_word = item;
            else if (equals == std::string::npos)
                m_good = false;
            else
                m_good &= m_values.emplace(item.substr(0, equals), item.substr(equals + 1)).second;
            at = end + 1;
        }
    }
    const std::string& Word() const { return m_word; }
    // Every requested key was present and valid, and there was no other.
    bool Good() const { return m_good && m_values.empty(); }

    std::string Text(const char* key) {
        const auto found = m_values.extract(key);
        m_good = m_good && !found.empty();
        return found.empty() ? std::string() : found.mapped();
    }
    template <class Number>
    Number Whole(const char* key, int64_t low, int64_t high) {
        std::string text = Text(key);
        const bool hex = text.compare(0, 2, "0x") == 0;
        if (hex) text.erase(0, 2);
        int64_t value = 0;
        const char* const end = text.data() + text.size();
        const auto [last, error] = std::from_chars(text.data(), end, value, hex ? 16 : 10);
        if (error == std::errc() && last == end && value >= low && value <= high)
            return static_cast<Number>(value);
        m_good = false;
        return static_cast<Number>(low);
    }
    uint32_t Number(const char* key) {
        return Whole<uint32_t>(key, 0, std::numeric_limits<uint32_t>::max());
    }
    int Int(const char* key, int low, int high = std::numeric_limits<int>::max()) {
        return Whole<int>(key, low, high);
    }
    bool Flag(const char* key) { return Int(key, 0, 1) != 0; }
    double Rate(const char* key) {
        const std::string text = Text(key);
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        const bool right = !text.empty() && *end == '\0' && std::isfinite(value);
        if (right && value >= 0 && value <= 10000) return value;
        m_good = false;
        return 1;
    }
    std::vector<uint8_t> Bytes(const char* key) {
        const std::string hex = Text(key);
        std::vector<uint8_t> bytes(hex.size() / 2);
        if (bytes.size() > kLargestValue || !FromHex(hex, bytes.data(), bytes.size()))
            m_good = false;
        return bytes;
    }
    std::string HexText(const char* key) {
        const std::vector<uint8_t> bytes = Bytes(key);
        return std::string(bytes.begin(), bytes.end());
    }
    template <class Record>
    void Fill(const char* key, Record& record) {
        m_good &= FromHex(Text(key), &record, sizeof record);
    }
    void Wrong() { m_good = false; }

  private:
    std::string m_word;
    std::map<std::string, std::string> m_values;
    bool m_good = true;
};

template <class Record>
std::string HexOf(const Record& record) {
    return ToHex(&record, sizeof record);
}
std::string HexOf(const std::string& text) { return ToHex(text.data(), text.size()); }

template <class... Values>
void Append(std::string& out, const char* format, Values... values) {
    char line[256];
    std::snprintf(line, sizeof line, format, values...);
    out += line;
}

void AppendChannel(std::string& out, const ChannelState& channel) {
    Append(out, "channel node=%d gone=%d", channel.node, channel.gone ? 1 : 0);
    out += " info=" + HexOf(channel.info) + " family=" + HexOf(channel.family) +
           " storage=" + HexOf(channel.storage);
    Append(out, " width=%u height=%u fps=%.17g audio=%.17g\n", channel.video.width,
           channel.video.height, channel.video.framesPerSecond, channel.audio.framesPerSecond);
    for (const SignalStep& step : channel.signal)
        Append(out, "signal at=%u present=%d\n", step.atMilliseconds, step.present ? 1 : 0);
    for (const auto& [name, bytes] : channel.records)
        out += "record name=" + name + " bytes=" + ToHex(bytes.data(), bytes.size()) + "\n";
}

void AppendBoard(std::string& out, const BoardState& board) {
    Append(out, "board index=%d shared=%d size=%u golden=0x%08x lost=%d\n", board.index,
           board.sharedFlash ? 1 : 0, board.flashSize, board.goldenVersion,
           board.powerLost ? 1 : 0);
    for (const ChannelState& channel : board.channels) AppendChannel(out, channel);
}

void AppendFault(std::string& out, const Fault& fault) {
    out += "fault request=" + fault.request;
    Append(out, " nth=%d count=%d one_in=%u seed=%u board=%d channel=%d kind=%s value=%u",
           fault.nth, fault.count, fault.oneIn, fault.seed, fault.board, fault.channel,
           FaultKindName(fault.effect.kind), fault.effect.value);
    Append(out, " process=%d slot=%d\n", fault.perProcess ? 1 : 0, fault.slot);
}

std::string Serialise(const CardsState& state) {
    std::string out = kStateFirstLine;
    out += '\n';
    Append(out, "event_node present=%d gone=%d\n", state.eventNode ? 1 : 0,
           state.eventNodeGone ? 1 : 0);
    Append(out, "latency erase=%u program=%u read=%u\n", state.latencies.erasePerSector,
           state.latencies.programPerPage, state.latencies.readPerKiB);
    const DriverWays& ways = state.driver;
    Append(
        out,
        "driver reuse_handles=%d after_stop=%s strict_erase=%d strict_values=%d busy_capture=%d\n",
        ways.reuseHandles ? 1 : 0, AfterStopName(ways.afterStop), ways.strictErase ? 1 : 0,
        ways.strictValues ? 1 : 0, ways.busyCapture ? 1 : 0);
    Append(out, "journal limit=%u\n", state.journalLimit);
    for (int node : state.foreignNodes) Append(out, "foreign node=%d\n", node);
    for (const BoardState& board : state.boards) AppendBoard(out, board);
    for (const UsbDevice& usb : state.usbDevices) {
        out += "usb product=" + HexOf(usb.product) + " serial=" + HexOf(usb.serial) +
               " hardware=" + HexOf(usb.hardware);
        Append(out, " code=%u\n", usb.productCode);
    }
    for (const Fault& fault : state.faults) AppendFault(out, fault);
    return out + "end\n";
}

void ParseBoard(Line& line, CardsState& state) {
    BoardState board;
    board.index = line.Int("index", 0, kMaxBoards - 1);
    board.sharedFlash = line.Flag("shared");
    board.flashSize = line.Whole<uint32_t>("size", kStateSector, kLargestFlash);
    if (board.flashSize % kStateSector != 0) line.Wrong();
    board.goldenVersion = line.Number("golden");
    board.powerLost = line.Flag("lost");
    // A board is identified by its index, and has its channels before the next board begins.
    for (const BoardState& other : state.boards)
        if (other.index == board.index || other.channels.empty()) line.Wrong();
    state.boards.push_back(board);
}

void ParseChannel(Line& line, CardsState& state) {
    ChannelState channel;
    channel.node = line.Int("node", 0, kMaxNode);
    channel.gone = line.Flag("gone");
    line.Fill("info", channel.info);
    line.Fill("family", channel.family);
    line.Fill("storage", channel.storage);
    channel.video = {line.Whole<uint32_t>("width", 2, 16384),
                     line.Whole<uint32_t>("height", 2, 16384), line.Rate("fps")};
    channel.audio.framesPerSecond = line.Rate("audio");
    std::set<int> nodes(state.foreignNodes.begin(), state.foreignNodes.end());
    for (const BoardState& board : state.boards)
        for (const ChannelState& other : board.channels) nodes.insert(other.node);
    if (state.boards.empty() || state.boards.back().channels.size() >= kMaxChannelsOnBoard ||
        nodes.count(channel.node) != 0)
        return line.Wrong();
    state.boards.back().channels.push_back(channel);
}

// The channel that a line belongs to; null when there is none.
ChannelState* LastChannel(Line& line, CardsState& state) {
    if (!state.boards.empty() && !state.boards.back().channels.empty())
        return &state.boards.back().channels.back();
    line.Wrong();
    return nullptr;
}

void ParseFault(Line& line, CardsState& state) {
    Fault fault;
    fault.request = line.Text("request");
    fault.nth = line.Int("nth", 1);
    fault.count = line.Int("count", -1);
    fault.oneIn = line.Number("one_in");
    fault.seed = line.Number("seed");
    fault.board = line.Int("board", -1, kMaxBoards - 1);
    fault.channel = line.Int("channel", -1, kMaxChannelsOnBoard - 1);
    if (!FaultKindFromName(line.Text("kind"), fault.effect.kind)) line.Wrong();
    fault.effect.value = line.Number("value");
    fault.perProcess = line.Flag("process");
    fault.slot = line.Int("slot", 0, kMaxFaults - 1);
    for (const Fault& other : state.faults)
        if (other.slot == fault.slot) line.Wrong();
    state.faults.push_back(fault);
}

void ParseDriver(Line& line, CardsState& state) {
    state.driver.reuseHandles = line.Flag("reuse_handles");
    if (!AfterStopFromName(line.Text("after_stop"), state.driver.afterStop)) line.Wrong();
    state.driver.strictErase = line.Flag("strict_erase");
    state.driver.strictValues = line.Flag("strict_values");
    state.driver.busyCapture = line.Flag("busy_capture");
}

void ParseUsb(Line& line, CardsState& state) {
    UsbDevice usb;
    usb.product = line.HexText("product");
    usb.serial = line.HexText("serial");
    usb.productCode = line.Whole<uint16_t>("code", 0, 0xFFFF);
    usb.hardware = line.HexText("hardware");
    state.usbDevices.push_back(usb);
}

bool ParseLine(Line line, CardsState& state) {
    const std::string& word = line.Word();
    if (word == "event_node") {
        state.eventNode = line.Flag("present");
        state.eventNodeGone = line.Flag("gone");
    } else if (word == "latency") {
        state.latencies = {line.Number("erase"), line.Number("program"), line.Number("read")};
    } else if (word == "driver") {
        ParseDriver(line, state);
    } else if (word == "journal") {
        state.journalLimit = line.Number("limit");
    } else if (word == "foreign") {
        state.foreignNodes.push_back(line.Int("node", 0, kMaxNode));
    } else if (word == "board") {
        ParseBoard(line, state);
    } else if (word == "channel") {
        ParseChannel(line, state);
    } else if (word == "signal") {
        const SignalStep step{line.Number("at"), line.Flag("present")};
        if (ChannelState* channel = LastChannel(line, state)) channel->signal.push_back(step);
    } else if (word == "record") {
        const std::string name = line.Text("name");
        const std::vector<uint8_t> bytes = line.Bytes("bytes");
        if (ChannelState* channel = LastChannel(line, state)) channel->records[name] = bytes;
    } else if (word == "usb") {
        ParseUsb(line, state);
    } else if (word == "fault") {
        ParseFault(line, state);
    } else if (word != "end" || (!state.boards.empty() && state.boards.back().channels.empty())) {
        return false;
    }
    return line.Good();
}

// What is wrong with the first line.
std::string CheckVersion(const std::string& path, const std::string& line) {
    if (line == kStateFirstLine) return {};
    if (line.compare(0, sizeof kAnyStateFirstLine - 1, kAnyStateFirstLine) == 0)
        return path + ":1: is of another version of qvcap-sim ('" + line.substr(0, 40) +
               "', not '" + kStateFirstLine + "'); create the folder again with `qvcap-sim init`";
    return path + ":1: is no state of simulated cards";
}

// The lowest number that no other fault has; its count begins anew.
bool GiveSlot(Folder& folder, CardsState& state, Fault& fault) {
    std::set<int> taken;
    for (const Fault& other : state.faults) taken.insert(other.slot);
    int slot = 0;
    while (taken.count(slot) != 0) ++slot;
    if (slot >= static_cast<int>(kMaxFaults)) return false;
    fault.slot = slot;
    StoreShared<uint32_t>(folder.Page().faultSeen[slot], 0);
    return true;
}

}  // namespace

std::string LoadState(const std::string& dir, CardsState& state) {
    const std::string path = StatePath(dir);
    if (access(path.c_str(), R_OK) != 0)
        return path + ": " + std::strerror(errno) + "; make the directory with `qvcap-sim init`";
    const std::string text = ReadText(path);
    state = CardsState();
    if (text.empty()) return path + ": empty";
    int number = 1;
    std::string line;
    for (size_t at = 0; at < text.size(); ++number) {
        const size_t end = std::min(text.find('\n', at), text.size());
        line = text.substr(at, end - at);
        at = end + 1;
        if (number == 1) {
            if (std::string error = CheckVersion(path, line); !error.empty()) return error;
        } else if (!ParseLine(Line(line), state)) {
            return path + ":" + std::to_string(number) +
                   ": not a line of a state file: " + line.substr(0, 60);
        }
    }
    if (line != "end") return path + ":" + std::to_string(number) + ": the end is missing";
    return {};
}

std::string SaveState(Folder& folder, CardsState& state) {
    const std::string path = StatePath(folder.Dir());
    for (Fault& fault : state.faults)
        if (fault.slot < 0 && !GiveSlot(folder, state, fault))
            return path + ": there are " + std::to_string(kMaxFaults) + " faults already";
    // The number first: a process that sees it waits for the lock, and so for the file.
    CountShared<uint32_t>(folder.Page().generation);
    if (ReplaceFile(path, Serialise(state))) return {};
    return path + ": cannot be written: " + std::strerror(errno);
}

std::string SaveState(const std::string& dir, const CardsState& state) {
    std::unique_ptr<Folder> folder;
    if (std::string error = Folder::Open(dir, folder); !error.empty()) return error;
    const Folder::Lock lock(folder.get());
    CardsState copy = state;
    return SaveState(*folder, copy);
}

}  // namespace qvsim
