// Rows of the probe's table, and what they say. One thread.
#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "QVDriverRequests.h"

namespace probe {

inline constexpr char kNode[] = "/dev/video0";

inline void Row(const char* name, const std::string& result) {
    std::printf("%s: %s\n", name, result.c_str());
}
inline std::string Error() { return strerrorname_np(errno) ? strerrorname_np(errno) : "0"; }
inline std::string Result(int result) { return result < 0 ? Error() : std::to_string(result); }

// A request that every channel answers.
inline std::string Ask(int fd) {
    uint32_t value = 0;
    return ioctl(fd, qv::kGetTemperature.code, &value) == 0 ? "ok" : Error();
}

inline std::string TypeOf(unsigned mode) {
    return S_ISCHR(mode) ? "character device" : S_ISLNK(mode) ? "link" : "another type";
}

void BadPointers();
void Signals();
void Processes();
// Ends the process by "exit", "kill", "terminate", "exec", or leaves the nodes to a "child";
// "early" forks while the first open waits.
int Leave(const std::string& how);
int Daemon(const char* file);

}  // namespace probe
