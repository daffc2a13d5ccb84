// qvftool: makes, shows, checks and takes apart firmware packages. The work is in CommandLine.cpp;
// here only the process's own arguments and streams.
#include <cerrno>
#include <cstring>
#include <iostream>

#include "CommandLine.h"

int main(int argc, char** argv) {
    const int status = qvf::RunQvftool({argv + 1, argv + argc}, std::cout, std::cerr);
    errno = 0;
    std::cout.flush();
    if (std::cout) return status;
    // What could not be printed was not shown.
    std::cerr << "qvftool: standard output: cannot be written"
              << (errno != 0 ? std::string(": ") + std::strerror(errno) : "") << "\n";
    return 2;
}
