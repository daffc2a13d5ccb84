// Boards of a scenario: what they are, what their flash holds, what they capture, and the records
// that they answer with. Their faults are in ScenarioFaults.cpp.
#include <algorithm>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "Hex.h"
#include "Protocol.h"
#include "ScenarioParts.h"
#include "TomlTable.h"

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
    const TomlTable known(TomlTableOf(node, "records"), names);
    for (const auto& [key, value] : *node.as_table()) {
        const std::string name(key.str());
        board.records[name] = ReadRecord(value, name, *records.at(name));
    }
}

}  // namespace

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

}  // namespace qvsim
