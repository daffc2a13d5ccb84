// The command line: its options, what each does while it is parsed, and the usage text. Sets the
// option bits, the filter and the upgrade list. Single-threaded; an argument list is parsed once.
#pragma once

inline constexpr int kParsed = 0;
inline constexpr int kExclusiveOptions = 4;
inline constexpr int kUnknownOption = 5;

// @return kParsed; the first failure of an option that builds the list (Inventory.h), at once;
//         kUnknownOption, at once; or kExclusiveOptions when two of -a, -b and -d were given
int PraseCommandLine(int argc, char** argv);

void PrintUsage();
