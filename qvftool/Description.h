// The text form of a package: a TOML description and one file for each section's data. Knows TOML
// and file names, but not the package format, see Package.h. Mistakes name file and line.
#pragma once

#include <string>

#include "Output.h"
#include "Package.h"

namespace qvf {

// Files that the description names are in its folder.
Package ReadDescription(const std::string& path);

// Writes description.toml and the data files; reading them gives the same package.
void WriteDescription(const Package& package, const NewFolder& folder);

}  // namespace qvf
