// Firmware packages for the cards of a plan, one minor version above their running version, for a
// first upgrade. The content is meaningless. One thread.
#pragma once

#include <string>
#include <vector>

#include "CardsPlan.h"

namespace qvsim {

struct SamplePackage {
    std::string name;  // of the file, unique among them
    std::vector<uint8_t> bytes;
};

// One for each product code and hardware version of a complete plan. A card that stores a
// compatibility code other than 1 gets a package that is a safe upgrade. Returns an error message,
// empty on success: which board has no room for sections.
std::string MakePackages(const CardsPlan& plan, std::vector<SamplePackage>& packages);

}  // namespace qvsim
