// qvftool: makes, shows, checks and takes apart firmware packages. The work is in CommandLine.cpp;
// here only the process's own arguments and streams.
#include <iostream>

#include "CommandLine.h"

int main(int argc, char** argv) {
    const int status = qvf::RunQvftool({argv + 1, argv + argc}, std::cout, std::cerr);
    std::cout.flush();
    return std::cout ? status : 2;  // what could not be printed was not shown
}
