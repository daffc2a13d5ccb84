// The state file: one item per line, a word and key=value pairs; texts and records as hexadecimal.
#include "CardsState.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>

#include "Hex.h"

namespace qvsim {
namespace {

constexpr char kFirstLine[] = "qvsim-cards 1";

struct KindName {
    FaultKind kind;
    const char* name;
};
constexpr KindName kKindNames[] = {
    {FaultKind::kRefuse, "refuse"},        {FaultKind::kShortRead, "short_read"},
    {FaultKind::kFlipBit, "flip_bit"},     {FaultKind::kStuckBits, "stuck_bits"},
    {FaultKind::kNotBlank, "not_blank"},   {FaultKind::kSlow, "slow"},
    {FaultKind::kPowerLoss, "power_loss"}, {FaultKind::kNodeGone, "node_gone"},
    {FaultKind::kPretend, "pretend"},      {FaultKind::kRefuseLate, "refuse_late"},
};

constexpr const char* kAfterStopNames[] = {"refuse", "at_once", "at_start"};

// One line, taken apart.
struct Line {
    std::string word;
    std::map<std::string, std::string> values;

    explicit Line(const std::string& text) {
        size_t at = 0;
        while (at < text.size()) {
            size_t end = text.find(' ', at);
            if (end == std::string::npos) end = text.size();
            const std::string item = text.substr(at, end - at);
            const size_t equals = item.find('=');
            if (word.empty()) {
                word = item;
            } else if (equals != std::string::npos) {
                values[item.substr(0, equals)] = item.substr(equals + 1);
            }
            at = end + 1;
        }
    }
    std::string Text(const char* key) const {
        const auto found = values.find(key);
        return found == values.end() ? std::string() : found->second;
    }
    uint32_t Number(const char* key) const {
        return static_cast<uint32_t>(std::strtoul(Text(key).c_str(), nullptr, 0));
    }
    int Int(const char* key) const {
        return static_cast<int>(std::strtol(Text(key).c_str(), nullptr, 0));
    }
    double Rate(const char* key) const { return std::strtod(Text(key).c_str(), nullptr); }
};

std::string UnHexText(const std::string& hex) {
    std::string text(hex.size() / 2, '\0');
    return FromHex(hex, text.data(), text.size()) ? text : std::string();
}

template <class Record>
std::string HexOf(const Record& record) {
    return ToHex(&record, sizeof record);
}

template <class... Values>
void Append(std::string& out, const char* format, Values... values) {
    char line[256];
    std::snprintf(line, sizeof line, format, values...);
    out += line;
}

void AppendChannel(std::string& out, const ChannelState& channel) {
    Append(out, "channel node=%d", channel.node);
    out += " info=" + HexOf(channel.info) + " family=" + HexOf(channel.family) +
           " storage=" + HexOf(channel.storage);
    Append(out, " width=%u height=%u fps=%.17g audio=%.17g\n", channel.video.width,
           channel.video.height, channel.video.framesPerSecond, channel.audio.framesPerSecond);
    for (const SignalStep& step : channel.signal)
        Append(out, "signal at=%u present=%d\n", step.atMilliseconds, step.present ? 1 : 0);
}

void AppendBoard(std::string& out, const BoardState& board) {
    Append(out, "board index=%d shared=%d size=%u golden=0x%08x lost=%d\n", board.index,
           board.sharedFlash ? 1 : 0, board.flashSize, board.goldenVersion,
           board.powerLost ? 1 : 0);
    for (const ChannelState& channel : board.channels) AppendChannel(out, channel);
}

std::string Serialise(const CardsState& state) {
    std::string out = std::string(kFirstLine) + "\n";
    Append(out, "event_node present=%d\n", state.eventNode ? 1 : 0);
    Append(out, "latency erase=%u program=%u read=%u\n", state.latencies.erasePerSector,
           state.latencies.programPerPage, state.latencies.readPerKiB);
    Append(out, "driver reuse_handles=%d after_stop=%s\n", state.driver.reuseHandles ? 1 : 0,
           AfterStopName(state.driver.afterStop));
    for (int node : state.foreignNodes) Append(out, "foreign node=%d\n", node);
    for (const BoardState& board : state.boards) AppendBoard(out, board);
    for (const UsbDevice& usb : state.usbDevices) {
        out += "usb product=" + ToHex(usb.product.data(), usb.product.size()) +
               " serial=" + ToHex(usb.serial.data(), usb.serial.size()) +
               " hardware=" + ToHex(usb.hardware.data(), usb.hardware.size());
        Append(out, " code=%u\n", usb.productCode);
    }
    for (const Fault& fault : state.faults) {
        out += "fault request=" + fault.request;
        Append(out, " nth=%d count=%d one_in=%u seed=%u board=%d channel=%d kind=%s value=%u\n",
               fault.nth, fault.count, fault.oneIn, fault.seed, fault.board, fault.channel,
               FaultKindName(fault.effect.kind), fault.effect.value);
    }
    return out;
}

bool ParseChannel(const Line& line, CardsState& state) {
    if (state.boards.empty()) return false;
    ChannelState channel;
    channel.node = line.Int("node");
    channel.video = {line.Number("width"), line.Number("height"), line.Rate("fps")};
    channel.audio.framesPerSecond = line.Rate("audio");
    if (!FromHex(line.Text("info"), &channel.info, sizeof channel.info) ||
        !FromHex(line.Text("family"), &channel.family, sizeof channel.family) ||
        !FromHex(line.Text("storage"), &channel.storage, sizeof channel.storage))
        return false;
    state.boards.back().channels.push_back(channel);
    return true;
}

bool ParseFault(const Line& line, CardsState& state) {
    Fault fault;
    fault.request = line.Text("request");
    fault.nth = line.Int("nth");
    fault.count = line.Int("count");
    fault.oneIn = line.Number("one_in");
    fault.seed = line.Number("seed");
    fault.board = line.Int("board");
    fault.channel = line.Int("channel");
    fault.effect.value = line.Number("value");
    if (fault.request.empty() || !FaultKindFromName(line.Text("kind"), fault.effect.kind))
        return false;
    state.faults.push_back(fault);
    return true;
}

bool ParseLine(const Line& line, CardsState& state) {
    if (line.word == "event_node") {
        state.eventNode = line.Int("present") != 0;
    } else if (line.word == "latency") {
        state.latencies = {line.Number("erase"), line.Number("program"), line.Number("read")};
    } else if (line.word == "driver") {
        state.driver.reuseHandles = line.Int("reuse_handles") != 0;
        return AfterStopFromName(line.Text("after_stop"), state.driver.afterStop);
    } else if (line.word == "foreign") {
        state.foreignNodes.push_back(line.Int("node"));
    } else if (line.word == "board") {
        BoardState board;
        board.index = line.Int("index");
        board.sharedFlash = line.Int("shared") != 0;
        board.flashSize = line.Number("size");
        board.goldenVersion = line.Number("golden");
        board.powerLost = line.Int("lost") != 0;
        state.boards.push_back(board);
    } else if (line.word == "channel") {
        return ParseChannel(line, state);
    } else if (line.word == "signal") {
        if (state.boards.empty() || state.boards.back().channels.empty()) return false;
        state.boards.back().channels.back().signal.push_back(
            {line.Number("at"), line.Int("present") != 0});
    } else if (line.word == "usb") {
        state.usbDevices.push_back({UnHexText(line.Text("product")), UnHexText(line.Text("serial")),
                                    static_cast<uint16_t>(line.Number("code")),
                                    UnHexText(line.Text("hardware"))});
    } else if (line.word == "fault") {
        return ParseFault(line, state);
    } else {
        return false;
    }
    return true;
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

const char* FaultKindName(FaultKind kind) {
    for (const KindName& row : kKindNames)
        if (row.kind == kind) return row.name;
    return "refuse";
}

bool FaultKindFromName(const std::string& name, FaultKind& kind) {
    for (const KindName& row : kKindNames) {
        if (name != row.name) continue;
        kind = row.kind;
        return true;
    }
    return false;
}

const char* AfterStopName(AfterStop afterStop) {
    return kAfterStopNames[static_cast<size_t>(afterStop)];
}

bool AfterStopFromName(const std::string& name, AfterStop& afterStop) {
    for (size_t i = 0; i < std::size(kAfterStopNames); ++i) {
        if (name != kAfterStopNames[i]) continue;
        afterStop = static_cast<AfterStop>(i);
        return true;
    }
    return false;
}

std::vector<std::string> FaultKindNames() {
    std::vector<std::string> names;
    for (const KindName& row : kKindNames) names.emplace_back(row.name);
    return names;
}

std::string StatePath(const std::string& dir) { return dir + "/cards.state"; }
std::string MetFaultsPath(const std::string& dir) { return dir + "/faults.met"; }

std::string FlashFileName(const BoardState& board, int channel) {
    const std::string name = "flash-b" + std::to_string(board.index);
    return (board.sharedFlash ? name : name + "-c" + std::to_string(channel)) + ".bin";
}

int OpenOutOfTheWay(const std::string& path, int flags) {
    return OutOfTheWay(open(path.c_str(), flags | O_CLOEXEC, 0666));
}

int OutOfTheWay(int fd) {
    constexpr int kFirstNumber = 700;
    if (fd < 0) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, kFirstNumber);
    if (moved < 0) return fd;  // a low limit: better in the way than not at all
    close(fd);
    return moved;
}

bool AppendText(const std::string& path, const std::string& text) {
    const int fd = OpenOutOfTheWay(path, O_WRONLY | O_CREAT | O_APPEND);
    if (fd < 0) return false;
    const bool written = WriteAll(fd, text.data(), text.size());
    return close(fd) == 0 && written;
}

bool ReplaceFile(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".new." + std::to_string(getpid());
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    const bool written = WriteAll(fd, text.data(), text.size());
    const bool closed = close(fd) == 0;
    if (written && closed && rename(temporary.c_str(), path.c_str()) == 0) return true;
    unlink(temporary.c_str());
    return false;
}

std::string ReadText(const std::string& path) {
    std::string text;
    std::FILE* file = std::fopen(path.c_str(), "re");
    if (!file) return text;
    char piece[4096];
    for (size_t n; (n = std::fread(piece, 1, sizeof piece, file)) > 0;) text.append(piece, n);
    std::fclose(file);
    return text;
}

std::string LoadState(const std::string& dir, CardsState& state) {
    const std::string path = StatePath(dir);
    if (access(path.c_str(), R_OK) != 0)
        return path + ": " + std::strerror(errno) + "; make the directory with `qvcap-sim init`";
    const std::string text = ReadText(path);
    state = CardsState();
    size_t at = 0;
    for (int number = 1; at < text.size(); ++number) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        const bool good = number == 1 ? line == kFirstLine : ParseLine(Line(line), state);
        if (!good)
            return path + ":" + std::to_string(number) +
                   ": not a line of a state file: " + line.substr(0, 60);
    }
    return text.empty() ? path + ": empty" : std::string();
}

std::string SaveState(const std::string& dir, const CardsState& state) {
    const std::string path = StatePath(dir);
    if (ReplaceFile(path, Serialise(state))) return {};
    return path + ": cannot be written: " + std::strerror(errno);
}

}  // namespace qvsim
