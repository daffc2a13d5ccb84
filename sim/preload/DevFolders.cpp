// The names that a stream over /dev still has to report. Reads no folder itself; InterposeScan.cpp
// does.
#include "DevFolders.h"

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>

#include "Interposed.h"

namespace qvsim::door {
namespace {

constinit std::atomic<int> g_folders{0};

struct Folders {
    std::mutex lock;
    std::map<DIR*, std::shared_ptr<DevFolder>> open;
};

// Never destroyed: threads may still read while the process ends.
Folders& TheFolders() {
    static Folders& folders = *new Folders;
    return folders;
}

}  // namespace

DIR* NoteFolder(DIR* stream) {
    if (!stream || Inside::Is() || !IsDevFolder(dirfd(stream))) return stream;
    const int error = errno;
    const Inside inside;
    if (const std::shared_ptr<Model> model = CurrentModel()) {
        auto folder = std::make_shared<DevFolder>();
        folder->names = model->NodeNames();
        const std::lock_guard lock(TheFolders().lock);
        TheFolders().open[stream] = std::move(folder);
        g_folders.fetch_add(1);
    }
    errno = error;
    return stream;
}

void ForgetFolder(DIR* stream) {
    if (g_folders.load() == 0 || Inside::Is()) return;
    const Inside inside;
    const std::lock_guard lock(TheFolders().lock);
    if (TheFolders().open.erase(stream) > 0) g_folders.fetch_sub(1);
}

std::shared_ptr<DevFolder> FindDevFolder(DIR* stream) {
    if (g_folders.load() == 0 || Inside::Is()) return nullptr;
    const Inside inside;
    const std::lock_guard lock(TheFolders().lock);
    const auto found = TheFolders().open.find(stream);
    return found == TheFolders().open.end() ? nullptr : found->second;
}

void LockFolders() { TheFolders().lock.lock(); }
void UnlockFolders() { TheFolders().lock.unlock(); }

}  // namespace qvsim::door
