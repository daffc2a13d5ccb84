// The table of descriptors that are nodes. Asks no driver; what a node answers is in Door.cpp.
#include "Descriptors.h"

#include <unistd.h>

#include <map>
#include <mutex>

namespace qvsim::door {

constinit std::atomic<int> g_openNodes{0};

namespace {

// Never destroyed: threads may still close files while the process ends.
struct Table {
    std::mutex lock;
    std::map<int, Held> entries;
    // A child that shares this memory, as after vfork(), has its own descriptors: this table does
    // not record what it does with them.
    pid_t process = getpid();
};

Table& TheTable() {
    static Table& table = *new Table;
    return table;
}

}  // namespace

Description::~Description() {
    if (model && file) model->Close(file, lastNumber);
}

Held Find(int fd) {
    if (g_openNodes.load(std::memory_order_acquire) == 0) return nullptr;
    Table& table = TheTable();
    const std::lock_guard lock(table.lock);
    const auto found = table.entries.find(fd);
    return found == table.entries.end() ? nullptr : found->second;
}

Held FindFile(const std::shared_ptr<OpenFile>& file) {
    Table& table = TheTable();
    const std::lock_guard lock(table.lock);
    for (const auto& [fd, held] : table.entries)
        if (held->file == file) return held;
    return nullptr;
}

Held Put(int fd, Held held) {
    if (!held && g_openNodes.load(std::memory_order_acquire) == 0) return nullptr;
    Table& table = TheTable();
    Held before;
    const std::lock_guard lock(table.lock);
    const auto found = table.entries.find(fd);
    if (found == table.entries.end() && !held) return nullptr;
    if (table.process != getpid()) return nullptr;
    if (found != table.entries.end()) {
        before = std::move(found->second);
        before->lastNumber = fd;
        table.entries.erase(found);
        g_openNodes.fetch_sub(1, std::memory_order_release);
    }
    if (held) {
        table.entries[fd] = std::move(held);
        g_openNodes.fetch_add(1, std::memory_order_release);
    }
    return before;
}

std::vector<std::pair<int, Held>> TakeRange(unsigned first, unsigned last) {
    std::vector<int> numbers;
    if (g_openNodes.load(std::memory_order_acquire) != 0) {
        Table& table = TheTable();
        const std::lock_guard lock(table.lock);
        for (const auto& [fd, held] : table.entries)
            if (static_cast<unsigned>(fd) >= first && static_cast<unsigned>(fd) <= last)
                numbers.push_back(fd);
    }
    std::vector<std::pair<int, Held>> taken;
    for (const int fd : numbers)
        if (Held held = Put(fd, nullptr)) taken.emplace_back(fd, std::move(held));
    return taken;
}

void LockTable() { TheTable().lock.lock(); }
void UnlockTable() { TheTable().lock.unlock(); }
void BeginTableInChild() { TheTable().process = getpid(); }

}  // namespace qvsim::door
