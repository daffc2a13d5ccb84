// One run of qvcap-upgrade that nothing but KILL and a loss of power ends: in a session of its own,
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
    std::string folder;  // it runs there
    std::string output;  // file for standard output and error; must not be there yet
    int lock = -1;       // a descriptor that it keeps open to its end
};

struct ChildEnd {
    int status = -1;  // exit status; -1 when a signal ended it
    int signal = 0;
};

class Child {
  public:
    explicit Child(const ChildPlan& plan);
    ~Child();  // waits for its end: it is never left half-way
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Number() const { return m_pid; }
    // Its end, when it has come.
    std::optional<ChildEnd> Poll();
    // Waits for its end, so long; whether it has come.
    bool WaitFor(int milliseconds);

  private:
    pid_t m_pid = -1;
    std::optional<ChildEnd> m_end;
};

// The tool beside this program, or where programs are installed. A Mistake when there is none.
std::string FindTool();

}  // namespace qvo
