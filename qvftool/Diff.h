// How two packages differ, field by field and section by section. Pure function.
#pragma once

#include <string>

#include "Package.h"

namespace qvf {

// One line for each difference, empty when the packages are the same, byte for byte. Needs packages
// that were read completely. Sections are matched by their names.
std::string DiffText(const Package& a, const Package& b);

}  // namespace qvf
