// Upgrades one open channel: asks, then erases, writes and verifies its flash from a package, and
// asks the driver to reconfigure the card. Prints progress, but not the result line.
// Single-threaded, with its own buffers: one upgrade at a time.
#pragma once

#include <cstdint>

#include "FirmwarePackage.h"

// Results of one channel.
inline constexpr int kCannotQuery = 0;
inline constexpr int kNoPackage = 1;
inline constexpr int kNotNewer = 2;
inline constexpr int kEraseFailed = 4;
inline constexpr int kWriteFailed = 6;
inline constexpr int kVerifyFailed = 9;
inline constexpr int kPostReconfigFailed = 10;
inline constexpr int kDeclined = 15;
inline constexpr int kUpgraded = 16;

// The mode of an upgrade.
inline constexpr char kSafeMode = 0;
inline constexpr char kNormalMode = 1;

inline constexpr uint32_t kChunkSize = 65536;  // most bytes of one library call
// From the normal header to the safe one, bytes.
inline constexpr uint32_t kSafeHeaderDistance = 4096;

// Asks, unless -y was given, and upgrades.
// @param[in]  index     1-based number of the channel, for the messages; of `count`
// @param[out] progress  percentage reached in the stage that failed; untouched otherwise
// @return one of the results above
int UpgradeInternel(QV_CHANNEL channel, int index, int count, char mode, unsigned int* progress);

// Erases, writes and verifies the header and every section that belongs to the mode, then asks the
// driver to reconfigure the card. The first failure ends it; nothing is rolled back.
// @return kUpgraded, kEraseFailed, kWriteFailed, kVerifyFailed or kPostReconfigFailed
int UpgradeFirmware(QV_CHANNEL channel, _QV_FIRMWARE_HEADER* header, unsigned char** data,
                    _QVCAP_FIRMWARE_STORAGE* storage, char mode, unsigned int* progress);
