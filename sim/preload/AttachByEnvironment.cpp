// The preload object: the cards of the directory that QVSIM_STATE names, loaded when the process
// first uses a simulated node, so that other programs under the door are not affected.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "AtFork.h"
#include "Door.h"
#include "Inside.h"

namespace qvsim {
namespace {

// Deliberate: never destroyed, because the process's own exit handlers may still use a card.
struct Cards {
    std::mutex loading;
    std::atomic<bool> loaded{false};
    std::shared_ptr<Model> model;
};

Cards& TheCards() {
    static Cards& cards = *new Cards;
    return cards;
}

std::shared_ptr<Model> LoadByEnvironment() {
    const char* dir = std::getenv("QVSIM_STATE");
    if (!dir || !*dir) return nullptr;
    std::shared_ptr<Model> model;
    if (const std::string error = Model::Load(dir, model); !error.empty()) {
        std::fprintf(stderr, "qvcap-sim: no simulated cards: %s\n", error.c_str());
        std::_Exit(2);
    }
    return model;
}

// A program may inherit open nodes through exec or from its parent, and one of its threads may fork
// while another one loads the cards.
__attribute__((constructor)) void TakeOver() {
    const char* const dir = std::getenv("QVSIM_STATE");
    if (!dir || !*dir) return;
    door::BeReadyForFork();
    door::AdoptInherited();
}

// The last thing that a process does with its cards.
__attribute__((destructor)) void CloseAtExit() {
    if (door::g_openNodes.load() > 0) door::CloseAll();
}

}  // namespace

std::shared_ptr<Model> CurrentModel() {
    Cards& cards = TheCards();
    if (!cards.loaded.load(std::memory_order_acquire)) {
        const door::Inside inside;
        const std::lock_guard lock(cards.loading);
        if (!cards.loaded.load(std::memory_order_relaxed)) cards.model = LoadByEnvironment();
        cards.loaded.store(true, std::memory_order_release);
    }
    return cards.model;
}

std::shared_ptr<Model> door::HoldAttachment() {
    TheCards().loading.lock();
    return TheCards().model;
}

void door::ReleaseAttachment() { TheCards().loading.unlock(); }

}  // namespace qvsim
