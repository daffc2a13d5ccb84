// Looks for other processes that have a card open; what to do about them is decided elsewhere.
#include "BusyCards.h"

#include <unistd.h>

#include <utility>

namespace qvo {

std::vector<Process> UsersOf(const std::vector<std::string>& nodes, const std::set<pid_t>& own,
                             const std::string& proc) {
    std::vector<Process> users = ProcessesWith(nodes, proc);
    std::erase_if(users, [&](const Process& process) {
        return process.pid == getpid() || own.contains(process.pid);
    });
    return users;
}

std::string BusyText(const std::vector<Process>& users) {
    return "in use by " + ProcessesText(users) + "; end that, or use --force-busy";
}

std::unique_ptr<Child> OwnTools::Start(const ChildPlan& plan) {
    const std::lock_guard lock(m_lock);
    auto tool = std::make_unique<Child>(plan);
    m_numbers.insert(tool->Number());
    return tool;
}

void OwnTools::Forget(const Child& tool) {
    const std::lock_guard lock(m_lock);
    m_numbers.erase(tool.Number());
}

std::vector<Process> OwnTools::OthersWith(const std::vector<std::string>& nodes) {
    const std::lock_guard lock(m_lock);
    return UsersOf(nodes, m_numbers);
}

}  // namespace qvo
