// The preload object: the cards of the directory that QVSIM_STATE names, loaded when the process
// first touches a simulated node, so that every other program under the door stays as it is.
#include <cstdio>
#include <cstdlib>

#include "Door.h"

namespace qvsim {
namespace {

// Deliberate: never destroyed, the process's own exit handlers may still use a card.
std::shared_ptr<Model>* LoadByEnvironment() {
    const char* dir = std::getenv("QVSIM_STATE");
    if (!dir || !*dir) return new std::shared_ptr<Model>;
    std::string error;
    auto* model = new std::shared_ptr<Model>(Model::Load(dir, error));
    if (!*model) {
        std::fprintf(stderr, "qvcap-sim: no simulated cards: %s\n", error.c_str());
        std::_Exit(2);
    }
    return model;
}

// The last thing that a process does with its cards.
__attribute__((destructor)) void CloseAtExit() {
    if (door::g_openNodes.load() > 0) door::CloseAll();
}

}  // namespace

std::shared_ptr<Model> CurrentModel() {
    static const std::shared_ptr<Model>& model = *LoadByEnvironment();
    return model;
}

}  // namespace qvsim
