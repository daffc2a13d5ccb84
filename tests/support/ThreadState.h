// What the kernel reports about a thread of this process.
#pragma once

#include <sys/types.h>

#include <fstream>
#include <iterator>
#include <string>

// 'R' running, 'S' asleep, ...; '?' when there is no such thread.
inline char ThreadState(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(stat)), {});
    const size_t name = text.rfind(") ");  // a name may contain anything
    return name == std::string::npos ? '?' : text[name + 2];
}
