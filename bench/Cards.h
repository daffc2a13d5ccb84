// Cards and packages for the benchmarks of the tool. One thread.
#pragma once

#include <cstdint>

#include "support/PackageBuilder.h"
#include "support/SimRig.h"

namespace qvbench {

inline constexpr uint32_t kKiB = 1u << 10;
inline constexpr uint32_t kMiB = 1u << 20;
inline constexpr uint32_t kSectionAddress = 0x200000;

// Newer than the boards' firmware; fits them. Another seed gives other data.
inline qvtest::PackageBuilder PackageOf(uint32_t size, uint32_t seed = 1) {
    return qvtest::Package().Firmware(1, 1).Section("Factory.Main", kSectionAddress,
                                                    qvtest::Payload(size, seed));
}

inline qvsim::BoardBuilder Board(int channels, uint32_t flashSize = 32 * kMiB) {
    return qvsim::Pelix().Channels(channels).Firmware(1, 0).FlashSize(flashSize);
}

}  // namespace qvbench
