// qvftool: makes, shows, checks, signs and unpacks firmware packages. CommandLine.cpp does the
// work; this file only passes on the process's arguments and streams.
#include <cerrno>
#include <cstring>
#include <iostream>

#include "CommandLine.h"

int main(int argc, char** argv) {
    const int status = qvf::RunQvftool({argv + 1, argv + argc}, std::cout, std::cerr);
    errno = 0;
    std::cout.flush();
    if (std::cout) return status;
    // Output that cannot be written is a failure.
    std::cerr << "qvftool: standard output: cannot be written"
              << (errno != 0 ? std::string(": ") + std::strerror(errno) : "") << "\n";
    return 2;
}
