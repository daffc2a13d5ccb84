// The command line of qvftool. Prints to the given streams; exit status 0 done and clean, 1 the
// check found something, 2 wrong arguments or an unusable file, and nothing was written.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qvf {

int RunQvftool(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& errors);

}  // namespace qvf
