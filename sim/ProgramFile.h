// Examines a program before `qvcap-sim run` starts it. Reads files, any thread.
#pragma once

#include <string>

namespace qvsim {

// The file that a command's first word names, searched as the shell does; empty when there is none.
std::string FindProgram(const std::string& word);

// Why the preload door cannot be loaded into the program, and what to do; empty when it can, or
// when nothing is known. `support` is the folder with the door and the stand-ins.
std::string WhyNoDoor(const std::string& program, const std::string& support);

}  // namespace qvsim
