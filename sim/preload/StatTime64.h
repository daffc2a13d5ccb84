// The interface between code that is built with a 64-bit time_t and the door, which on i386 is not:
// it passes no record of the C library, because the two have different ones.
#pragma once

#include <cstdint>

namespace qvsim::door {

struct WideStat {
    uint64_t device, inode, nodeDevice;
    uint32_t mode, links, user, group, blockSize;
    int64_t time;
};

inline constexpr int kNoFollow = 0x100;

// Like StatAs(); without a path it inspects the descriptor `dir`. `real` asks the kernel, with
// `call` as its argument.
int StatWide(int dir, const char* path, int flags, WideStat& status, int (*real)(void*), void* call,
             bool& ours);

}  // namespace qvsim::door
