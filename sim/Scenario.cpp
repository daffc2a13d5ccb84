#include "Scenario.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>
#include <vector>

#include "Hex.h"
#include "Protocol.h"
#include "TomlTable.h"
#include "Words.h"

namespace qvsim {
namespace {

// A number of frames per second above 0, or "max".
void ReadRate(const TomlTable& table, const char* key, double& out) {
    const toml::node* node = table.Find(key);
    if (!node) return;
    if (node->value_exact<std::string>() == "max") {
        out = 0;
        return;
    }
    const auto value = node->value<double>();
    if (!value || !(*value > 0) || *value > 10000)
        throw TomlMistake(*node, std::string(key) + " is a number of 0 to 10000, or \"max\"");
    out = *value;
}

void ReadStored(const toml::node& node, BoardPlan& board) {
    if (node.is_string()) {
        if (TomlTable::TextOf(node, "stored") != "none")
            throw TomlMistake(node, "stored is \"none\" or a table");
        board.noStoredHeader = true;
        return;
    }
    const TomlTable table(TomlTableOf(node, "stored"), {"version", "compatibility_code"});
    StoredPlan stored{board.firmware, 1};
    table.Version("version", stored.version);
    table.Integer("compatibility_code", stored.compatibilityCode, 0, 0xFFFF);
    board.stored = stored;
}

void ReadStorage(const TomlTable& table, BoardPlan& board) {
    const toml::node* node = table.Find("storage");
    if (!node) return;
    const toml::array* words = node->as_array();
    if (!words || words->size() != 4) throw TomlMistake(*node, "storage is a list of four numbers");
    for (size_t i = 0; i < 4; ++i) {
        const auto word = static_cast<uint32_t>(
            TomlTable::IntegerOf((*words)[i], "storage", 0, std::numeric_limits<uint32_t>::max()));
        if (i < 3)
            board.storageWords[i] = word;
        else
            board.firmwareOffset = word;
    }
}

void ReadMedia(const TomlTable& table, BoardPlan& board) {
    if (const toml::node* node = table.Find("video")) {
        const TomlTable video(TomlTableOf(*node, "video"), {"width", "height", "fps"});
        video.Integer("width", board.video.width, 2, 16384);
        video.Integer("height", board.video.height, 2, 16384);
        ReadRate(video, "fps", board.video.framesPerSecond);
    }
    if (const toml::node* node = table.Find("audio")) {
        const TomlTable audio(TomlTableOf(*node, "audio"), {"fps"});
        ReadRate(audio, "fps", board.audio.framesPerSecond);
    }
    ForEachToml(table, "signal", [&](const toml::node& element) {
        const TomlTable entry(TomlTableOf(element, "signal"), {"at_ms", "present"});
        SignalStep step;
        entry.Integer("at_ms", step.atMilliseconds, 0, 86'400'000);
        entry.Flag("present", step.present);
        board.signal.push_back(step);
    });
}

// A record of a get request: a number with the record's size, or hexadecimal text.
std::vector<uint8_t> ReadRecord(const toml::node& node, const std::string& name, const Row& row) {
    // Arrays are passed by address: their size is free, in whole elements.
    const bool array = row.element > 0;
    std::vector<uint8_t> bytes(array ? row.element : row.Size());
    if (!node.is_string()) {
        const int64_t value = TomlTable::IntegerOf(node, name, std::numeric_limits<int32_t>::min(),
                                                   std::numeric_limits<uint32_t>::max());
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<uint8_t>(value >> std::min<size_t>(8 * i, 63));
        return bytes;
    }
    const std::string hex = TomlTable::TextOf(node, name);
    const size_t size = hex.size() / 2;
    if (array) bytes.resize(size);
    if (size != bytes.size() || size % std::max(1u, row.element) != 0 || size > (64u << 10) ||
        !FromHex(hex, bytes.data(), bytes.size()))
        throw TomlMistake(node, name + " is a number or hexadecimal text of " +
                                    (array ? "whole elements of " + std::to_string(row.element)
                                           : std::to_string(row.Size())) +
                                    " bytes");
    return bytes;
}

// The get requests by the names of their values: "Temperature", "EDID".
std::map<std::string, const Row*> Records() {
    std::map<std::string, const Row*> records;
    size_t count = 0;
    const Row* const rows = AllRows(count);
    for (size_t i = 0; i < count; ++i)
        if (*rows[i].key && std::string(rows[i].name) != "GetHDMIInfoFramePacket" &&
            rows[i].GivesRecord() &&
            (rows[i].element == 0 || std::string(rows[i].name).ends_with("Count") == false))
            records.emplace(rows[i].key, &rows[i]);
    return records;
}

void ReadRecords(const toml::node& node, BoardPlan& board) {
    const std::map<std::string, const Row*> records = Records();
    std::vector<std::string> names;
    for (const auto& [name, row] : records) names.push_back(name);
    const toml::table& values = TomlTableOf(node, "records");
    const TomlTable known(values, names);
    for (const auto& [key, value] : values) {
        const std::string name(key.str());
        board.records[name] = ReadRecord(value, name, *records.at(name));
    }
}

BoardPlan ReadBoard(const toml::node& node) {
    const TomlTable table(TomlTableOf(node, "board"),
                          {"family", "product", "product_code", "hardware", "serial", "index",
                           "channels", "firmware", "golden", "flash_size", "first_node", "storage",
                           "stored", "video", "audio", "signal", "records"});
    BoardPlan board;
    table.Text("family", board.family);
    table.Text("product", board.product);
    table.Integer("product_code", board.productCode, 0, 0xFFFF);
    std::string hardware(1, board.hardware);
    table.Text("hardware", hardware);
    if (hardware.size() != 1) throw TomlMistake(node, "hardware is one character");
    board.hardware = hardware[0];
    table.Text("serial", board.serial);
    table.Integer("index", board.index, 0, 15);
    table.Integer("channels", board.channels, 1, 16);
    table.Version("firmware", board.firmware);
    table.Version("golden", board.golden);
    table.Integer("flash_size", board.flashSize, NorFlash::kSector, 1 << 30);
    table.Integer("first_node", board.firstNode, 0, 9999);
    ReadStorage(table, board);
    if (const toml::node* stored = table.Find("stored")) ReadStored(*stored, board);
    ReadMedia(table, board);
    if (const toml::node* records = table.Find("records")) ReadRecords(*records, board);
    return board;
}

// An errno by name or number.
uint32_t ReadErrno(const toml::node& node) {
    // A kernel passes on no other numbers from a driver in a process.
    if (!node.is_string())
        return static_cast<uint32_t>(TomlTable::IntegerOf(node, "value", 1, 511));
    const std::string name = TomlTable::TextOf(node, "value");
    for (int error = 1; error < 134; ++error)
        if (ErrorName(error) == name) return static_cast<uint32_t>(error);
    throw TomlMistake(node, "value '" + name + "' is no errno known here; give its number");
}

std::vector<std::string> RequestNames() {
    size_t count = 0;
    const Row* const rows = AllRows(count);
    std::vector<std::string> names = {kOpen, kAnyRequest};
    for (size_t i = 0; i < count; ++i) names.emplace_back(rows[i].name);
    names.insert(names.end(), std::begin(kSignals), std::end(kSignals));
    return names;
}

Fault ReadFault(const toml::node& node) {
    const TomlTable table(TomlTableOf(node, "fault"), {"request", "nth", "count", "one_in", "seed",
                                                       "board", "channel", "per", "kind", "value"});
    Fault fault;
    table.Text("request", fault.request);
    const bool signal =
        std::find(std::begin(kSignals), std::end(kSignals), fault.request) != std::end(kSignals);
    if (!signal && fault.request != kOpen && fault.request != kAnyRequest &&
        !FindRow(fault.request))
        throw TomlMistake(node, "fault names no request: '" + fault.request + "'" +
                                    KnownWords(fault.request, RequestNames()));
    table.Integer("nth", fault.nth, 1, std::numeric_limits<int>::max());
    table.Integer("count", fault.count, -1, std::numeric_limits<int>::max());
    table.Integer("one_in", fault.oneIn, 1, std::numeric_limits<int>::max());
    table.Integer("seed", fault.seed, 0, std::numeric_limits<uint32_t>::max());
    table.Integer("board", fault.board, 0, 15);
    table.Integer("channel", fault.channel, 0, 15);
    std::string per = "folder";
    table.Text("per", per);
    fault.perProcess = per == "process";
    if (!fault.perProcess && per != "folder")
        throw TomlMistake(node, "per is \"folder\" or \"process\"");
    std::string kind;
    table.Text("kind", kind);
    if (!FaultKindFromName(kind, fault.effect.kind))
        throw TomlMistake(node, "fault has no kind, or one that is unknown: '" + kind + "'" +
                                    KnownWords(kind, FaultKindNames()));
    if (signal && fault.effect.kind != FaultKind::kPretend)
        throw TomlMistake(node,
                          fault.request + " is a signal: the only kind for it is \"pretend\"");
    if (fault.effect.kind == FaultKind::kRefuse || fault.effect.kind == FaultKind::kRefuseLate) {
        const toml::node* value = table.Find("value");
        fault.effect.value = value ? ReadErrno(*value) : static_cast<uint32_t>(EIO);
    } else if (fault.effect.kind == FaultKind::kPretend) {
        table.Integer("value", fault.effect.value, 0, std::numeric_limits<int>::max());
    } else {
        table.Integer("value", fault.effect.value, 0, std::numeric_limits<uint32_t>::max());
    }
    return fault;
}

std::vector<std::string> ReadNames(const toml::node& node, const char* key) {
    std::vector<std::string> names;
    const toml::array* array = node.as_array();
    if (!array) throw TomlMistake(node, std::string(key) + " is a list of texts");
    for (const toml::node& name : *array) names.push_back(TomlTable::TextOf(name, key));
    return names;
}

CameraSize ReadSize(const toml::node& node) {
    const TomlTable table(TomlTableOf(node, "camera"), {"width", "height", "fps"});
    CameraSize size;
    table.Integer("width", size.width, 2, 4096);
    table.Integer("height", size.height, 2, 4096);
    if (const toml::node* fps = table.Find("fps")) {
        const toml::array* array = fps->as_array();
        if (!array) throw TomlMistake(*fps, "fps is a list of whole numbers");
        size.fps.clear();
        for (const toml::node& rate : *array)
            size.fps.push_back(static_cast<int>(TomlTable::IntegerOf(rate, "fps", 1, 240)));
    }
    return size;
}

Fault ReadUsbFault(const toml::node& node) {
    const TomlTable table(TomlTableOf(node, "fault"),
                          {"transfer", "nth", "count", "kind", "value"});
    Fault fault;
    table.Text("transfer", fault.request);
    unsigned command = 0;
    int used = 0;
    const bool isCommand = std::sscanf(fault.request.c_str(), "0x%2X%n", &command, &used) == 1 &&
                           static_cast<size_t>(used) == fault.request.size() && used == 4;
    std::vector<std::string> names(std::begin(kUsbTransfers), std::end(kUsbTransfers));
    if (!isCommand && std::find(names.begin(), names.end(), fault.request) == names.end())
        throw TomlMistake(node, "fault names no transfer: '" + fault.request + "'" +
                                    KnownWords(fault.request, names) + ", or a command as 0x05");
    table.Integer("nth", fault.nth, 1, std::numeric_limits<int>::max());
    table.Integer("count", fault.count, -1, std::numeric_limits<int>::max());
    std::string kind;
    table.Text("kind", kind);
    const std::vector<FaultKind> known = {
        FaultKind::kRefuse,    FaultKind::kRefuseLate, FaultKind::kNodeGone, FaultKind::kPowerLoss,
        FaultKind::kPretend,   FaultKind::kStuckBits,  FaultKind::kNotBlank, FaultKind::kFlipBit,
        FaultKind::kShortRead, FaultKind::kHalf};
    if (!FaultKindFromName(kind, fault.effect.kind) ||
        std::find(known.begin(), known.end(), fault.effect.kind) == known.end())
        throw TomlMistake(node, "a USB device has no fault of the kind '" + kind + "'");
    table.Integer("value", fault.effect.value, 0, std::numeric_limits<uint32_t>::max());
    return fault;
}

UsbControl ReadUsbControl(const toml::node& node) {
    const TomlTable table(TomlTableOf(node, "control"),
                          {"firmware", "golden", "stored_code", "flash_size", "firmware_offset",
                           "busy_polls", "fault"});
    UsbControl control;
    table.Version("firmware", control.firmware);
    control.golden = control.firmware;
    table.Version("golden", control.golden);
    table.Integer("stored_code", control.storedCode, 0, 0xFFFF);
    table.Integer("flash_size", control.flashSize, 4 * NorFlash::kSector, 64 << 20);
    table.Integer("firmware_offset", control.firmwareOffset, 0, 64 << 20);
    table.Integer("busy_polls", control.busyPolls, 0, 1000);
    ForEachToml(table, "fault",
                [&](const toml::node& e) { control.faults.push_back(ReadUsbFault(e)); });
    return control;
}

UsbPlan ReadUsb(const toml::node& node) {
    const TomlTable table(TomlTableOf(node, "usb"),
                          {"product", "serial", "hardware", "product_code", "controller",
                           "captures", "playbacks", "camera", "control"});
    UsbPlan device;
    table.Text("product", device.product);
    table.Text("serial", device.serial);
    table.Text("hardware", device.hardware);
    table.Integer("product_code", device.productCode, 0, 0xFFFF);
    table.Integer("controller", device.controller, 0, 15);
    if (const toml::node* names = table.Find("captures"))
        device.captures = ReadNames(*names, "captures");
    if (const toml::node* names = table.Find("playbacks"))
        device.playbacks = ReadNames(*names, "playbacks");
    if (const toml::node* control = table.Find("control"))
        device.control = ReadUsbControl(*control);
    if (table.Find("camera")) device.camera.emplace();
    ForEachToml(table, "camera",
                [&](const toml::node& e) { device.camera->push_back(ReadSize(e)); });
    return device;
}

DriverWays ReadDriver(const toml::node& node) {
    const TomlTable table(
        TomlTableOf(node, "driver"),
        {"reuse_handles", "frames_after_stop", "strict_erase", "strict_values", "busy_capture"});
    DriverWays ways;
    table.Flag("reuse_handles", ways.reuseHandles);
    table.Flag("strict_erase", ways.strictErase);
    table.Flag("strict_values", ways.strictValues);
    table.Flag("busy_capture", ways.busyCapture);
    std::string afterStop = AfterStopName(ways.afterStop);
    table.Text("frames_after_stop", afterStop);
    if (!AfterStopFromName(afterStop, ways.afterStop))
        throw TomlMistake(node, "frames_after_stop is \"refuse\", \"at_once\" or \"at_start\"");
    return ways;
}

void ReadAll(const toml::table& root, CardsPlan& plan) {
    const TomlTable table(root, {"event_node", "foreign_nodes", "journal_limit", "driver",
                                 "latency", "board", "usb", "fault"});
    table.Flag("event_node", plan.eventNode);
    ForEachToml(table, "foreign_nodes", [&](const toml::node& element) {
        plan.foreignNodes.push_back(
            static_cast<int>(TomlTable::IntegerOf(element, "foreign_nodes", 0, 9999)));
    });
    if (const toml::node* node = table.Find("journal_limit")) {
        constexpr int64_t kShortest = 64 << 10;
        plan.journalLimit = static_cast<uint32_t>(
            TomlTable::IntegerOf(*node, "journal_limit", kShortest, int64_t{1} << 31));
    }
    if (const toml::node* node = table.Find("driver")) plan.driver = ReadDriver(*node);
    if (const toml::node* node = table.Find("latency")) {
        constexpr int64_t kMaxDelay = 10'000'000;
        const TomlTable latency(TomlTableOf(*node, "latency"),
                                {"erase_sector", "program_page", "read_kib"});
        latency.Integer("erase_sector", plan.latencies.erasePerSector, 0, kMaxDelay);
        latency.Integer("program_page", plan.latencies.programPerPage, 0, kMaxDelay);
        latency.Integer("read_kib", plan.latencies.readPerKiB, 0, kMaxDelay);
    }
    ForEachToml(table, "board", [&](const toml::node& e) { plan.boards.push_back(ReadBoard(e)); });
    ForEachToml(table, "usb", [&](const toml::node& e) {
        plan.usbDevices.push_back(ReadUsb(e));
        if (const std::string error = CompleteLastUsb(plan.usbDevices); !error.empty())
            throw TomlMistake(e, error);
    });
    ForEachToml(table, "fault", [&](const toml::node& e) { plan.faults.push_back(ReadFault(e)); });
    // Each board is first checked separately, so that the message can name its line.
    CardsPlan soFar;
    soFar.foreignNodes = plan.foreignNodes;
    const toml::array* boards = root["board"].as_array();
    for (size_t i = 0; i < plan.boards.size(); ++i) {
        soFar.boards.push_back(plan.boards[i]);
        CardsPlan trial = soFar;
        const std::string error = CompletePlan(trial);
        if (!error.empty()) throw TomlMistake((*boards)[i], error);
    }
    if (const std::string error = CompletePlan(plan); !error.empty())
        throw TomlMistake(root, error);
}

}  // namespace

std::string ParseScenario(const std::string& text, const std::string& name, CardsPlan& plan) {
    plan = CardsPlan();
    const auto mistake =
        ReadToml(text, name, [&](const toml::table& root) { ReadAll(root, plan); });
    return mistake ? mistake->In(name) : std::string();
}

std::string ParseFault(const std::vector<std::string>& pairs, Fault& fault) {
    std::string text;
    for (const std::string& pair : pairs) {
        const size_t equals = pair.find('=');
        const bool plain = pair.find_first_of("\"\\\n\r") == std::string::npos;
        if (equals == std::string::npos || equals == 0 || !plain)
            return "'" + pair + "' is not key=value";
        const std::string value = pair.substr(equals + 1);
        const bool number = value.find_first_not_of("-0123456789abcdefx") == std::string::npos &&
                            value.find_first_of("0123456789") <= 1;
        text += pair.substr(0, equals + 1) + (number ? value : "\"" + value + "\"") + "\n";
    }
    const auto mistake =
        ReadToml(text, "fault", [&](const toml::table& root) { fault = ReadFault(root); });
    return mistake ? mistake->what() : std::string();
}

std::string ReadScenario(const std::string& path, CardsPlan& plan) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf()))
        return path + ": cannot be read: " + std::strerror(errno ? errno : EINVAL);
    return ParseScenario(text.str(), path, plan);
}

}  // namespace qvsim
