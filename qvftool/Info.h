// A package's header and section table as text and as JSON. Prints nothing itself. Any thread.
#pragma once

#include <string>

#include "Package.h"

namespace qvf {

std::string InfoText(const std::string& name, const Package& package);
std::string InfoJson(const std::string& name, const Package& package);

}  // namespace qvf
