// Scenario files: converts TOML text to a plan of cards. Only the files Scenario*.cpp know TOML
// here. One thread.
#pragma once

#include <string>
#include <vector>

#include "CardsPlan.h"

namespace qvsim {

// The scenario when none is given.
extern const char kDefaultScenario[];

// Reads TOML text; `name` is for messages. Returns an error message, "file:line: what is wrong",
// empty on success; after an error the plan must not be used. Unknown keys are errors: a misspelt
// fault must not go unnoticed.
std::string ParseScenario(const std::string& text, const std::string& name, CardsPlan& plan);
// A fault as words "key=value", with the keys of a [[fault]]. Returns an error message, empty on
// success.
std::string ParseFault(const std::vector<std::string>& pairs, Fault& fault);
std::string ReadScenario(const std::string& path, CardsPlan& plan);

}  // namespace qvsim
