// Faults of cards and of USB devices, as tables of a scenario and as words of a command line. What
// a fault does is decided elsewhere, by FaultSet and its users.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "Protocol.h"
#include "Scenario.h"
#include "ScenarioParts.h"
#include "TomlTable.h"
#include "Words.h"

namespace qvsim {
namespace {

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

}  // namespace

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

}  // namespace qvsim
