// Which processes have a file open, according to /proc. A process that this one may not inspect
// counts as having none. Reads only /proc; any thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qvo {

struct Process {
    pid_t pid = 0;
    pid_t parent = 0;        // 0 when it cannot be told
    std::string name;        // from the kernel: at most 15 characters, any bytes
    bool holdsLock = false;  // an open-file-description lock, on this file, through this descriptor
};

// Every process that has the file at `path` open, once, in the order of their numbers. A device
// node counts by its device number: a second node of the same device is the same file.
std::vector<Process> ProcessesWith(const std::string& path, const std::string& proc = "/proc");

// "qvcap-upgrade (process 71)"; names are escaped.
std::string ProcessText(const Process& process);
std::string ProcessesText(const std::vector<Process>& processes);  // with commas

}  // namespace qvo
