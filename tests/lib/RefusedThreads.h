// Lets a test refuse the creation of the next thread.
//
// RefusedThreads.cpp takes pthread_create in the test program and passes on what is not refused.
#pragma once

#include <atomic>

namespace fake {

// Threads still to be refused with EAGAIN.
inline std::atomic<int> g_refusedThreads{0};

}  // namespace fake
