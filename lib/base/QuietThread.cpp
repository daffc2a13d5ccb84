#include "QuietThread.h"

#include <csignal>
#include <initializer_list>

namespace qv {

int CreateQuietThread(pthread_t* thread, void* (*entry)(void*), void* argument) {
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP})
        sigdelset(&blocked, fault);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);  // the new thread inherits it
    const int error = pthread_create(thread, nullptr, entry, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

}  // namespace qv
