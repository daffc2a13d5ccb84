// What happens around fork(): the locks of the simulation are taken before it and released after
// it, in both processes. Starts no process itself.
#include "AtFork.h"

#include <pthread.h>

#include <utility>

#include "DevFolders.h"
#include "Door.h"
#include "Inside.h"
#include "Waiting.h"

namespace qvsim::door {
namespace {

struct Forking {
    Inside inside;  // first: no handler runs while locks are held
    std::shared_ptr<Model> model;
};

// One fork at a time: written with the table's lock held.
Forking* g_forking = nullptr;

void Before() {
    auto* const forking = new Forking;
    forking->model = HoldAttachment();
    // In the same order as everywhere: a working model opens and closes its own files.
    if (forking->model) forking->model->HoldForFork();
    LockFolders();
    LockTable();
    g_forking = forking;
}

void LetGo() {
    const Forking* const forking = std::exchange(g_forking, nullptr);
    UnlockTable();
    UnlockFolders();
    if (forking->model) forking->model->LetGoAfterFork();
    ReleaseAttachment();
    delete forking;
}

void InChild() {
    BeginTableInChild();
    ForgetSleepers();
    if (g_forking->model) g_forking->model->BeginInChild();
    LetGo();
}

}  // namespace

void BeReadyForFork() {
    static const bool ready = [] {
        // What is made when first used is made now, and not while another thread forks.
        Before();
        LetGo();
        return pthread_atfork(Before, LetGo, InChild) == 0;
    }();
    static_cast<void>(ready);
}

}  // namespace qvsim::door
