// Cards and packages that the benchmarks of the tool work on. One thread.
#pragma once

#include <cstdint>

#include "support/PackageBuilder.h"
#include "support/SimRig.h"

namespace qvbench {

inline constexpr uint32_t kKiB = 1u << 10;
inline constexpr uint32_t kMiB = 1u << 20;
inline constexpr uint32_t kSectionAddress = 0x200000;

// Newer than what the boards run; fits them. Another seed is other data.
inline qvtest::PackageBuilder PackageOf(uint32_t size, uint32_t seed = 1) {
    return qvtest::Package().Firmware(1, 1).Section("Factory.Main", kSectionAddress,
                                                    qvtest::Payload(size, seed));
}

inline qvsim::BoardBuilder Board(int channels, uint32_t flashSize = 32 * kMiB) {
    return qvsim::Pelix().Channels(channels).Firmware(1, 0).FlashSize(flashSize);
}

}  // namespace qvbench
