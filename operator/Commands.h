// The commands of qvcap, each in its own unit. Each adds itself to the command line and, when
// called, stores its exit status. They are called while the command line is parsed. One thread.
#pragma once

#include <CLI/CLI.hpp>

namespace qvo {

void AddHistory(CLI::App& app, int& status);
void AddStatus(CLI::App& app, int& status);
void AddVerify(CLI::App& app, int& status);
void AddBackup(CLI::App& app, int& status);
void AddDoctor(CLI::App& app, int& status);
void AddUpgrade(CLI::App& app, int& status);

}  // namespace qvo
