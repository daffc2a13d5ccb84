// Cards, packages and verdicts as text and as JSON, for every command that reports them. Pure
// functions.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "Cards.h"
#include "Judge.h"
#include "Packages.h"

namespace qvo {

using Json = nlohmann::ordered_json;

// Only ASCII, and valid whatever the texts hold: bytes that are no UTF-8 are replaced. Ends with a
// newline.
std::string DumpIndented(const Json& json);
// The same on one line.
std::string DumpLine(const Json& json);

// docs/formats/status.schema.json describes them.
Json CardJson(const Card& card);
Json ImageJson(const Image& image);
Json PackageJson(const FirmwarePackage* package);  // null for none
Json PackageSetJson(const PackageSet& packages);

// "1.1 complete", "blank", "1.0" for firmware that is not the package's.
std::string ImageText(const Image& image);
// "section 1 (Factory.Main) differs from offset 65536 on (flash address 0x00210000)". Not escaped.
std::string DifferenceText(const Difference& difference);

// One line for each package that could not be read, escaped.
std::string UnreadableText(const PackageSet& packages);

}  // namespace qvo
