// Who else has the nodes of a card open: such a card is not flashed. Reads /proc; any thread.
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Child.h"
#include "Processes.h"

namespace qvo {

// The processes that have one of the nodes open, except this one and the ones in `own`.
std::vector<Process> UsersOf(const std::vector<std::string>& nodes, const std::set<pid_t>& own = {},
                             const std::string& proc = "/proc");

// Why a card with these users is not flashed, and what to do.
std::string BusyText(const std::vector<Process>& users);

// The tools that this run has started. They are no other users of a card: at its start a tool opens
// the nodes of all cards, also of those that other tools of this run flash. Another child of this
// process is one; a shell that was replaced by this program leaves its jobs as such.
class OwnTools {
  public:
    std::unique_ptr<Child> Start(const ChildPlan& plan);
    // The one that has ended; its number may become another process's.
    void Forget(const Child& tool);
    std::vector<Process> OthersWith(const std::vector<std::string>& nodes);

  private:
    // Held while a tool starts, so that nobody sees it before its number is known.
    std::mutex m_lock;
    std::set<pid_t> m_numbers;
};

}  // namespace qvo
