// A scenario as a whole: the driver, the nodes and the delays, and the order in which its parts are
// read. Boards, faults and USB devices are read by the functions of ScenarioParts.h.
#include "Scenario.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ScenarioParts.h"
#include "TomlTable.h"

namespace qvsim {
namespace {

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

void ReadLatencies(const toml::node& node, Latencies& latencies) {
    constexpr int64_t kMaxDelay = 10'000'000;
    const TomlTable table(TomlTableOf(node, "latency"),
                          {"erase_sector", "program_page", "read_kib"});
    table.Integer("erase_sector", latencies.erasePerSector, 0, kMaxDelay);
    table.Integer("program_page", latencies.programPerPage, 0, kMaxDelay);
    table.Integer("read_kib", latencies.readPerKiB, 0, kMaxDelay);
}

// Each board is first checked separately, so that the message can name its line.
void Complete(const toml::table& root, CardsPlan& plan) {
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
    if (const toml::node* node = table.Find("latency")) ReadLatencies(*node, plan.latencies);
    ForEachToml(table, "board", [&](const toml::node& e) { plan.boards.push_back(ReadBoard(e)); });
    ForEachToml(table, "usb", [&](const toml::node& e) {
        plan.usbDevices.push_back(ReadUsbDevice(e));
        if (const std::string error = CompleteLastUsb(plan.usbDevices); !error.empty())
            throw TomlMistake(e, error);
    });
    ForEachToml(table, "fault", [&](const toml::node& e) { plan.faults.push_back(ReadFault(e)); });
    Complete(root, plan);
}

}  // namespace

std::string ParseScenario(const std::string& text, const std::string& name, CardsPlan& plan) {
    plan = CardsPlan();
    const auto mistake =
        ReadToml(text, name, [&](const toml::table& root) { ReadAll(root, plan); });
    return mistake ? mistake->In(name) : std::string();
}

std::string ReadScenario(const std::string& path, CardsPlan& plan) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf()))
        return path + ": cannot be read: " + std::strerror(errno ? errno : EINVAL);
    return ParseScenario(text.str(), path, plan);
}

}  // namespace qvsim
