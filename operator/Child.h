// One run of qvcap-upgrade that only KILL and a loss of power can interrupt: in its own session,
// with HUP, INT, TERM and PIPE ignored, nothing on standard input, its output in a file. It goes on
// when this process ends. Failures are Mistakes. One thread per object.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace qvo {

struct ChildPlan {
    std::string program;  // path of the tool
    std::vector<std::string> arguments;
    std::string folder;  // its working directory
    std::string output;  // file for standard output and error; must not exist yet
    int lock = -1;       // a descriptor that it keeps open until it ends
};

struct ChildEnd {
    int status = -1;  // exit status; -1 when a signal ended it
    int signal = 0;
};

class Child {
  public:
    explicit Child(const ChildPlan& plan);
    ~Child();  // waits for its end: it is never interrupted
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Number() const { return m_pid; }
    // Its result, if it has ended.
    std::optional<ChildEnd> Poll();
    // Waits so long for its end; true if it has ended.
    bool WaitFor(int milliseconds);

  private:
    pid_t m_pid = -1;
    std::optional<ChildEnd> m_end;
};

// The tool in this program's folder, or where programs are installed. A Mistake when there is none.
std::string FindTool();

}  // namespace qvo
