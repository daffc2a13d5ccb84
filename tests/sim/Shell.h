// qvcap-sim in a shell line, and a folder for its cards.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>

#include "support/TempFolder.h"

namespace qvsim {

struct Outcome {
    int status;
    std::string output;  // both streams
};

// Runs a shell line; `qvcap-sim` stands for the program. Descriptors that a test runner left open
// are closed, so that the numbers that programs are given are known.
inline Outcome Shell(const std::string& line) {
    std::FILE* pipe =
        popen(("{ exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; PATH=$PATH:" +
               std::filesystem::path(QVCAP_SIM).parent_path().string() + "; " + line + "; } 2>&1")
                  .c_str(),
              "r");
    Outcome outcome{-1, {}};
    if (!pipe) return outcome;
    std::array<char, 512> piece{};
    for (size_t n; (n = fread(piece.data(), 1, piece.size(), pipe)) > 0;)
        outcome.output.append(piece.data(), n);
    const int status = pclose(pipe);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

class CommandsTest : public testing::Test {
  protected:
    const qvtest::TempFolder m_temporary{"qvsim-commands"};
    const std::string m_home = m_temporary.Path();
    const std::string m_cards = m_home + "/cards";
};

}  // namespace qvsim
