#include "CommandLine.h"

#include <getopt.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "ToolState.h"

namespace {

constexpr char kShortOptions[] = "ab:d:fylh";
constexpr option kLongOptions[] = {
    {"all", no_argument, nullptr, 'a'},          {"board", required_argument, nullptr, 'b'},
    {"device", required_argument, nullptr, 'd'}, {"fource", no_argument, nullptr, 'f'},
    {"yes", no_argument, nullptr, 'y'},          {"list", no_argument, nullptr, 'l'},
    {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0},
};

// Builds a new list beside the valid one and replaces it on success: a failure half-way must not
// pair the flags of one card with the path of another. The new list starts as a copy because a
// record without a package keeps its flags. See docs/decisions.md, "Upgrade list".
template <typename Build>
int ReplaceList(Build build) {
    static _QVCAP_UPGRADE_LIST_INFO_ list[kListCapacity];
    std::copy(std::begin(g_arrChannsInfo), std::end(g_arrChannsInfo), list);
    int count = kListCapacity;
    const int result = build(list, &count);
    if (result != kInventoryOk) return result;
    std::copy(std::begin(list), std::end(list), g_arrChannsInfo);
    g_nDevicesNum = count;
    return kInventoryOk;
}

int ListFiltered() {
    return ReplaceList([](_QVCAP_UPGRADE_LIST_INFO_* list, int* count) {
        return GetDevicesInfo(list, count, g_nBoardIndex, g_nChannelIndex);
    });
}

int ListNamed() {
    return ReplaceList([](_QVCAP_UPGRADE_LIST_INFO_* list, int* count) {
        return PraiseDeviceArg(optarg, list, count);
    });
}

int ListBoard() {
    g_nBoardIndex = atoi(optarg);
    return ListFiltered();
}

struct OptionAction {
    int letter;
    uint32_t bit;
    int (*run)();  // null when the option only sets its bit
};

constexpr OptionAction kActions[] = {
    {'a', kCmdAll, ListFiltered}, {'b', kCmdBoard, ListBoard}, {'d', kCmdDevice, ListNamed},
    {'f', kCmdForce, nullptr},    {'y', kCmdYes, nullptr},     {'l', kCmdList, ListFiltered},
    {'h', kCmdHelp, nullptr},
};

int RunOption(int letter) {
    for (const OptionAction& action : kActions) {
        if (action.letter != letter) continue;
        g_dwCMD |= action.bit;
        return action.run == nullptr ? kInventoryOk : action.run();
    }
    return kInventoryOk;
}

}  // namespace

int PraseCommandLine(int argc, char** argv) {
    int letter;
    while ((letter = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1) {
        if (letter == '?') return kUnknownOption;
        const int result = RunOption(letter);
        if (result != kInventoryOk) return result;
    }
    constexpr uint32_t kExclusive = kCmdAll | kCmdBoard | kCmdDevice;
    return std::popcount(g_dwCMD & kExclusive) > 1 ? kExclusiveOptions : kParsed;
}

void PrintUsage() {
    puts(
        "USAGE\n"
        "  qvcap-upgrade [OPTIONS]\n"
        "\n"
        "DESCRIPTION\n"
        "  Upgrade firmware for Pelix or Lumo Capture cards.\n"
        "\n"
        "OPTIONS\n"
        "  -h                    print usage (Default option)\n"
        "  -l                    list all capture device information\n"
        "\n"
        "  -a                    upgrade all channels\n"
        "  -b BOARD_ID           upgrade devices with specifed board ID\n"
        "  -d CAPTURE_DEVICE     upgrade specifed devices. CAPTURE_DEVICE can be\n"
        "                        V4L2 device path (eg. /dev/video0) or capture\n"
        "                        device ID (Board ID:Channel ID, eg. 0:0)\n"
        "\n"
        "  -f                    force to upgrade firmware to target version\n"
        "  -y                    upgrade without interacting\n"
        "\n"
        "EXAMPLES\n"
        "  1. upgrade all devices      $ qvcap-upgrade -a\n"
        "  2. upgrade devices with specifed board ID\n"
        "      $ qvcap-upgrade -b 0\n"
        "  3. upgrade specifed devices      $ qvcap-upgrade -d /dev/video0\n"
        "      -- or --\n"
        "      $ qvcap-upgrade -d 0:0\n"
        "  4. force to upgrade device, even if target version is older than current\n"
        "      $ qvcap-upgrade -d 0:0 -f\n"
        "  5. upgrade device without interacting\n"
        "      $ qvcap-upgrade -d 0:0 -y");
}
