#include "Inside.h"

#include <pthread.h>

#include <atomic>
#include <initializer_list>

namespace qvsim::door {
namespace {

constinit std::atomic<bool> g_handlers{false};
constinit thread_local int t_depth = 0;

}  // namespace

void NoteHandler() { g_handlers.store(true, std::memory_order_relaxed); }
bool HasHandlers() { return g_handlers.load(std::memory_order_relaxed); }

bool Inside::Is() { return t_depth > 0; }

Inside::Inside() {
    // Most programs have no handlers, and their requests cost no system call for this.
    if (t_depth == 0 && HasHandlers()) {
        sigset_t all;
        sigfillset(&all);
        // Those that say that something is wrong here cannot wait.
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
            sigdelset(&all, fault);
        held_ = pthread_sigmask(SIG_BLOCK, &all, &outer_) == 0;
    }
    ++t_depth;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_);
}

Inside::~Inside() {
    pthread_setcancelstate(cancel_, nullptr);
    --t_depth;
    if (held_) pthread_sigmask(SIG_SETMASK, &outer_, nullptr);
}

}  // namespace qvsim::door
