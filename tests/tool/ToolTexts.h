// The fixed texts of qvcap-upgrade, typed a second time: what the tests compare its output with.
#pragma once

#include <string>

namespace qvtest {

inline const std::string kUsage =
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
    "      $ qvcap-upgrade -d 0:0 -y\n";

inline const std::string kWarning =
    "\x1B[1;31m/////////////////////////////////////////////////////////////////////////////////\n"
    "//                              !!! Warning !!!                                 //\n"
    "//  Upgrade firmware is an dangerous operation,so please close all applications //\n"
    "//before this operation and don't turn off the computer when upgrading firmware//\n"
    "/////////////////////////////////////////////////////////////////////////////////\n"
    "\n"
    "\x1B[0m";

inline const std::string kPowerOffQuestion =
    "======================================================================\n"
    "\x1B[7mNeed turn off and then turn on to reload the upgraded firmware!\n"
    "Do you want to turn off your computer now? -- (y)-YES or (n)-NO:\x1B[0m";

inline const std::string kExclusive =
    "option \"-a\" \"-b\" and \"-d\" can't not be used at the same time\n";
inline const std::string kArgumentError = "error argument, please use \"-h\" option to see usage\n";
inline const std::string kNoPackages = "No QVF file found in the current directory\n";

// One line of output, one line here.
// clang-format off
inline const std::string kTableHeader =
    "capture name                   |current ver     |hardware ver    |new ver         |status         \n";
// clang-format on

// What erasing `n` characters before the cursor looks like.
inline std::string Clear(size_t n) {
    return std::string(n, '\b') + std::string(n, ' ') + std::string(n, '\b');
}

}  // namespace qvtest
