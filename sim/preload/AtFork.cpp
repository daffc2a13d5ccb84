#include "AtFork.h"

#include <pthread.h>

#include "Door.h"
#include "Inside.h"
#include "Waiting.h"

namespace qvsim::door {
namespace {

// One fork at a time: written with the table's lock held.
Inside* g_inside = nullptr;
std::shared_ptr<Model>* g_model = nullptr;

void Before() {
    auto* const inside = new Inside;
    auto* const model = new std::shared_ptr<Model>(HoldAttachment());
    LockTable();
    if (*model) (*model)->Mutex().lock();
    g_inside = inside;
    g_model = model;
}

void LetGo() {
    const Inside* const inside = g_inside;
    const std::shared_ptr<Model>* const model = g_model;
    if (model && *model) (*model)->Mutex().unlock();
    UnlockTable();
    ReleaseAttachment();
    delete model;
    delete inside;
}

void InChild() {
    BeginTableInChild();
    ForgetSleepers();
    if (*g_model) (*g_model)->BeginInChild();
    LetGo();
}

}  // namespace

void BeReadyForFork() {
    static const int result = pthread_atfork(Before, LetGo, InChild);
    static_cast<void>(result);
}

}  // namespace qvsim::door
