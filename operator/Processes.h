// Which processes have a file open, according to /proc. A process that this one may not inspect
// counts as having none. Reads only /proc; any thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qvo {

struct Process {
    pid_t pid = 0;
    std::string name;  // from the kernel: at most 15 characters, any bytes
    // An open-file-description lock, on such a file, through this descriptor.
    bool holdsLock = false;
};

// Every process that has one of the files open, once, in the order of their numbers. A device node
// counts by its device number: a second node of the same device is the same file. Looks through
// /proc once, however many files there are.
std::vector<Process> ProcessesWith(const std::vector<std::string>& paths,
                                   const std::string& proc = "/proc");

// "qvcap-upgrade (process 71)"; names are escaped.
std::string ProcessText(const Process& process);
std::string ProcessesText(const std::vector<Process>& processes);  // with commas

}  // namespace qvo
