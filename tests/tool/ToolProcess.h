// Runs the real qvcap-upgrade over simulated cards, in a folder of its own, on a terminal or
// through pipes, and brings back what it printed. Linux only; one run at a time. The cards are seen
// through the preload door, or served for the time of the run, see support/ServedCards.h.
//
// `poweroff`, `sudo` and `sync` are always recording stand-ins, and nothing else but `id` is on
// the PATH of a run: no test can turn the machine off.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/SimRig.h"
#include "support/TempFolder.h"

namespace qvtest {

struct ToolRun {
    int status = -1;  // exit status; -1 when a signal ended it
    int signal = 0;
    std::string output;  // standard output, every byte
    std::string errors;  // standard error
    bool terminalRestored = true;
    long pageFaults = 0;  // those that no file had to be read for
};

// What the kernel tells of a process: the number in such a line of its status.
uint64_t StatusOf(pid_t pid, const std::string& field, int base);
bool IgnoresInterrupts(pid_t pid);

class ToolFolder {
  public:
    ToolFolder();
    ToolFolder(const ToolFolder&) = delete;
    ToolFolder& operator=(const ToolFolder&) = delete;

    // The folder that the tool is run in; packages go here.
    const std::string& Dir() const { return m_work; }
    std::string operator/(const std::string& name) const { return m_work + "/" + name; }

    // Runs happen there from now on.
    void RunIn(const std::string& dir) { m_work = dir; }
    // The user number that `id -u` tells from now on; default: the real one.
    void UserNumber(int number);
    // Replaces a stand-in by a shell script, whose output becomes lines of Commands().
    void StandIn(const std::string& name, const std::string& body);
    // Which stand-ins ran, in order: "sync", "poweroff", "sudo poweroff".
    std::vector<std::string> Commands() const;

    // On a terminal that alters no byte. The n-th answer is typed when the n-th question is on
    // the screen and the tool has put the terminal into one-key mode; before it is typed,
    // `atQuestion(n, pid)` is called, n from 1.
    ToolRun OnTerminal(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                       const std::vector<std::string>& answers = {},
                       const std::function<void(int, pid_t)>& atQuestion = {});
    // On such a terminal, typing what `typist` returns. It is called again and again until the tool
    // has ended.
    struct Screen {
        const std::string& output;  // so far
        pid_t pid;                  // of the tool
        bool oneKeyMode;
    };
    ToolRun OnTerminal(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                       const std::function<std::string(const Screen&)>& typist);
    // With `input` as standard input, then its end.
    ToolRun ThroughPipe(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                        const std::string& input = {});

    // Nothing on standard input; the reader of the output goes away once `text` was printed.
    ToolRun UntilPrinted(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                         const std::string& text);

    // The reader of the output goes away once `text` was printed; with a terminal, it hangs up.
    ToolRun UntilPrintedOnTerminal(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                                   const std::string& text);

    // Nothing on standard input, the output into a file.
    ToolRun IntoFile(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                     const std::string& file);

    // Ends the server of the run that is under way; served nodes only.
    void KillServer();

    // Further environment of a run: "NAME=value".
    void Environment(const std::string& setting) { m_environment.push_back(setting); }

    // An object that runs load besides.
    void Preload(const std::string& object) { m_preload = object; }

    // The standard streams that are closed when a run begins.
    void CloseStreams(const std::vector<int>& streams) { m_closed = streams; }
    // Runs begin with the signal for a terminal's end ignored, as by nohup.
    void IgnoreHangUps() { m_ignoresHangUps = true; }

  private:
    pid_t Start(qvsim::SimRig& rig, const std::vector<std::string>& arguments, int input,
                int output, bool onTerminal);
    void Finish(pid_t pid, ToolRun* run);

    const TempFolder m_temporary{"qvtool"};
    const std::string m_root = m_temporary.Path();
    std::string m_work;
    std::string m_bin;
    std::vector<std::string> m_environment;
    std::string m_preload;
    std::vector<int> m_closed;
    bool m_ignoresHangUps = false;
    std::unique_ptr<qvsim::ServingProcess> m_server;  // while the tool runs over served nodes
};

}  // namespace qvtest
