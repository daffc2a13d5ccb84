// A package's header and section table as text and as JSON. Prints nothing itself. Any thread.
#pragma once

#include <string>
#include <vector>

#include "Package.h"

namespace qvf {

// SHA-256 of the whole file and of each section's data, in hexadecimal digits.
struct Digests {
    std::string file;
    std::vector<std::string> sections;
};

// Needs a package that was read completely.
Digests DigestsOf(const Package& package);

// Reserved fields that are zero are shown only on request.
std::string InfoText(const std::string& name, const Package& package, const Digests& digests,
                     bool zeros);
// See docs/formats/qvftool.md; no newline at the end.
std::string InfoJson(const std::string& name, const Package& package, const Digests& digests);

}  // namespace qvf
