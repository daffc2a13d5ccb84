// How a thread enters and leaves the door. Takes no lock.
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
    // Most programs have no handlers; then this costs their requests no system call.
    if (t_depth == 0 && HasHandlers()) {
        sigset_t all;
        sigfillset(&all);
        // Signals of a fault in this code cannot wait.
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
            sigdelset(&all, fault);
        m_held = pthread_sigmask(SIG_BLOCK, &all, &m_outer) == 0;
    }
    ++t_depth;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancel);
}

Inside::~Inside() {
    pthread_setcancelstate(m_cancel, nullptr);
    --t_depth;
    if (m_held) pthread_sigmask(SIG_SETMASK, &m_outer, nullptr);
}

}  // namespace qvsim::door
