// What a program is that `qvcap-sim run` is to start, before it is started. Reads files, any
// thread.
#pragma once

#include <string>

namespace qvsim {

// The file that a command's first word names, looked up as the shell does; empty when there is
// none.
std::string FindProgram(const std::string& word);

// Why the preload door cannot be loaded into the program, and what can be done; empty when it can,
// or when nothing is known. `door` is the folder with one folder for each kind of program.
std::string WhyNoDoor(const std::string& program, const std::string& door);

}  // namespace qvsim
