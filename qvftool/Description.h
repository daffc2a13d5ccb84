// The text form of a package: a TOML description and one file for each section's data.
// Knows TOML and file names; the package format is Package.h's. Mistakes name file and line.
#pragma once

#include <string>

#include "Output.h"
#include "Package.h"

namespace qvf {

// Files that the description names are looked for beside it.
Package ReadDescription(const std::string& path);

// Writes description.toml and the data files, so that reading them gives the same package.
void WriteDescription(const Package& package, const NewFolder& folder);

}  // namespace qvf
