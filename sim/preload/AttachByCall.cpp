// A test program chooses its cards itself. Any thread.
#include <mutex>

#include "AtFork.h"
#include "Door.h"

namespace qvsim {
namespace {

struct Current {
    std::mutex lock;
    std::shared_ptr<Model> model;
};

Current& TheCurrent() {
    static Current& current = *new Current;
    return current;
}

}  // namespace

std::shared_ptr<Model> CurrentModel() {
    Current& current = TheCurrent();
    const std::lock_guard lock(current.lock);
    return current.model;
}

std::shared_ptr<Model> door::HoldAttachment() {
    TheCurrent().lock.lock();
    return TheCurrent().model;
}

void door::ReleaseAttachment() { TheCurrent().lock.unlock(); }

std::string Attach(const std::string& dir) {
    Detach();
    std::shared_ptr<Model> model;
    std::string error = Model::Load(dir, model);
    Attach(std::move(model));
    return error;
}

void Attach(std::shared_ptr<Model> model) {
    door::BeReadyForFork();
    Detach();
    Current& current = TheCurrent();
    const std::lock_guard lock(current.lock);
    current.model = std::move(model);
}

void Detach() {
    std::shared_ptr<Model> model;
    {
        Current& current = TheCurrent();
        const std::lock_guard lock(current.lock);
        model.swap(current.model);
    }
    if (model) model->ShutDown();
}

}  // namespace qvsim
