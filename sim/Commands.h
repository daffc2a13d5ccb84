// The sub-commands of qvcap-sim, one function each; each returns the exit status. One thread.
#pragma once

#include <string>
#include <vector>

namespace qvsim {

inline constexpr int kBadInput = 2;  // wrong arguments, an unusable scenario or state directory

inline constexpr int kCannotServe = 1;

// Prints the reason to standard error and returns the status.
int Fail(const std::string& error, int status = kBadInput);
// A descriptor that becomes readable at SIGTERM and SIGINT. From then on they are blocked in this
// thread and those that it starts: call it before any is started. -1 with errno when that fails.
int SignalsThatEnd();

// No scenario: "". Packages for the cards are written to `dir`/packages.
int InitCommand(const std::string& dir, const std::string& scenario, bool packages);
int StatusCommand(const std::string& dir, bool json);
int PowerCycleCommand(const std::string& dir);
// Restores everything that `init` made.
int ResetCommand(const std::string& dir);
// Prints the journal, or empties it; `follow` goes on until the process ends.
int JournalCommand(const std::string& dir, bool json, bool follow, bool clear);
// `pairs` are the keys of a fault in a scenario: "request=open".
int FaultAddCommand(const std::string& dir, const std::vector<std::string>& pairs);
int FaultListCommand(const std::string& dir, bool json);
// Removes the faults with these numbers of the list; all of them when no number is given.
int FaultClearCommand(const std::string& dir, const std::vector<int>& numbers);
// `place` is BOARD or BOARD:CHANNEL.
int FlashReadCommand(const std::string& dir, const std::string& place, const std::string& file);
int FlashWriteCommand(const std::string& dir, const std::string& place, const std::string& file);
// Makes the cards' nodes in /dev and serves them until SIGTERM or SIGINT; 1 when that is
// impossible.
int ServeCommand(const std::string& dir);
// Plugs the USB devices of a scenario into the running kernel and serves them until SIGTERM or
// SIGINT; 1 when that is impossible. Sound played to them is written to files in the folder
// `played`. Each may be "".
int UsbCommand(const std::string& scenario, const std::string& played, const std::string& state);
// Executes `command`, with the cards of `dir` in its /dev and harmless stand-ins for the programs
// that switch a machine off; returns only on failure.
int RunCommand(const std::string& dir, const std::vector<std::string>& command);

}  // namespace qvsim
