// Starts the library's own threads, with the application's signals blocked.
//
// A signal on such a thread would interrupt its requests to the driver, and the application's
// handler would run on a thread that the application does not know. Signals that a fault raises in
// the thread itself are not blocked: crash handlers still work. Any thread.
#pragma once

#include <pthread.h>

namespace qv {

// As pthread_create with default attributes.
int CreateQuietThread(pthread_t* thread, void* (*entry)(void*), void* argument);

}  // namespace qv
