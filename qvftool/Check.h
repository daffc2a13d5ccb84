// What is questionable about a package, and about the packages of one folder together.
// Reads headers; judges, changes nothing. Any thread.
#pragma once

#include <string>
#include <vector>

#include "Package.h"

namespace qvf {

// One line each; empty when there is nothing to say. Names no file.
std::vector<std::string> Overlaps(const Package& package);
std::vector<std::string> CheckPackage(const Package& package);

// Every finding about the packages that qvcap-upgrade would list in the folder, each beginning with
// the file's name. A folder that cannot be read is a Mistake.
std::vector<std::string> CheckFolder(const std::string& folder);

}  // namespace qvf
