// Looks for other processes that have a card open; what to do about them is decided elsewhere.
#include "BusyCards.h"

#include <unistd.h>

#include <algorithm>

namespace qvo {

std::vector<Process> UsersOf(const std::vector<std::string>& nodes, const std::string& proc) {
    std::vector<Process> users;
    for (const std::string& node : nodes)
        for (const Process& process : ProcessesWith(node, proc)) {
            const bool known = std::any_of(users.begin(), users.end(), [&](const Process& user) {
                return user.pid == process.pid;
            });
            const bool own = process.pid == getpid() || process.parent == getpid();
            if (!own && !known) users.push_back(process);
        }
    return users;
}

}  // namespace qvo
