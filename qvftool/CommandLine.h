// The command line of qvftool. Prints to the given streams. Exit status: 0 done, nothing found; 1
// findings or differences; 2 wrong arguments or an unusable file, and nothing was written.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qvf {

int RunQvftool(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& errors);

}  // namespace qvf
