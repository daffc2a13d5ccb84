#include "Door.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>

#include "Protocol.h"

namespace qvsim::door {

constinit std::atomic<int> g_openNodes{0};

namespace {

struct Entry {
    std::shared_ptr<Model> model;
    std::shared_ptr<OpenFile> file;
};

// Which descriptors are simulated nodes. Never destroyed: threads may still close files while the
// process ends.
struct Descriptors {
    std::mutex lock;
    std::map<int, Entry> entries;
};

Descriptors& Table() {
    static Descriptors& table = *new Descriptors;
    return table;
}

bool Find(int fd, Entry& entry) {
    if (g_openNodes.load(std::memory_order_acquire) == 0) return false;
    Descriptors& table = Table();
    const std::lock_guard lock(table.lock);
    const auto found = table.entries.find(fd);
    if (found == table.entries.end()) return false;
    entry = found->second;
    return true;
}

}  // namespace

int OpenNode(const std::shared_ptr<Model>& model, const char* path, int flags) {
    int error = 0;
    const std::shared_ptr<OpenFile> file = model->Open(path, error);
    int fd = -1;
    if (file) {
        // A descriptor of the kernel's own: numbers, limits and inheritance behave as they should.
        fd = RealOpen("/dev/null", O_RDWR | (flags & (O_NONBLOCK | O_CLOEXEC)));
        if (fd < 0) {
            error = errno;
            model->Close(file, fd);
        }
    }
    model->JournalOpen(path, fd, error);
    if (error) {
        errno = error;
        return -1;
    }
    Descriptors& table = Table();
    const std::lock_guard lock(table.lock);
    // An entry may stand there still, of a descriptor that was closed by other means than close().
    if (table.entries.erase(fd) == 0) g_openNodes.fetch_add(1, std::memory_order_release);
    table.entries[fd] = {model, file};
    return fd;
}

bool IsNode(int fd) {
    Entry entry;
    return Find(fd, entry);
}

int CloseNode(int fd) {
    Entry entry;
    {
        Descriptors& table = Table();
        const std::lock_guard lock(table.lock);
        const auto found = table.entries.find(fd);
        if (found == table.entries.end()) return RealClose(fd);
        entry = found->second;
        table.entries.erase(found);
        g_openNodes.fetch_sub(1, std::memory_order_release);
    }
    if (entry.model) entry.model->Close(entry.file, fd);
    return RealClose(fd);
}

void CloseAll() {
    std::map<int, Entry> left;
    {
        Descriptors& table = Table();
        const std::lock_guard lock(table.lock);
        left.swap(table.entries);
        g_openNodes.fetch_sub(static_cast<int>(left.size()), std::memory_order_release);
    }
    for (const auto& [fd, entry] : left)
        if (entry.model) entry.model->Close(entry.file, fd);
}

int Request(int fd, unsigned long code, void* argument) {
    Entry entry;
    if (!Find(fd, entry) || !entry.model) {
        errno = EBADF;
        return -1;
    }
    OwnMemory memory;
    const Answer answer =
        ServeRequest(*entry.model, *entry.file, static_cast<uint32_t>(code),
                     static_cast<uint64_t>(reinterpret_cast<uintptr_t>(argument)), memory);
    if (answer.error == 0) return answer.value;
    errno = answer.error;
    return -1;
}

}  // namespace qvsim::door
