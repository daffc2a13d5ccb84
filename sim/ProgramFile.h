// Examines a program before `qvcap-sim run` starts it. Reads files, any thread.
#pragma once

#include <string>

namespace qvsim {

// The file that a command's first word names, searched as the shell does; empty when there is none.
std::string FindProgram(const std::string& word);

// Why the preload door cannot be loaded into the program, and what to do; empty when it can, or
// when nothing is known. `door` is the folder with one folder for each kind of program.
std::string WhyNoDoor(const std::string& program, const std::string& door);

}  // namespace qvsim
