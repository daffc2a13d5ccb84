// Which descriptors of this process are simulated nodes: a table that every interposed call updates
// when it makes, duplicates or closes a descriptor. Any thread inside the door.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Model.h"

namespace qvsim::door {

// One open file of a node; it may have several descriptors. Its destruction closes the node: after
// the last descriptor of this process, and after the last request on it.
struct Description {
    std::shared_ptr<Model> model;
    std::shared_ptr<OpenFile> file;  // null: opened with O_PATH
    std::string path;                // "/dev/video0"
    int lastNumber = -1;             // the descriptor that was closed last

    Description() = default;
    Description(const Description&) = delete;
    Description& operator=(const Description&) = delete;
    ~Description();
};
using Held = std::shared_ptr<Description>;

// How many descriptors are in the table: if 0, every close and ioctl passes through at once.
extern constinit std::atomic<int> g_openNodes;

// Null when it is no node.
Held Find(int fd);
Held FindFile(const std::shared_ptr<OpenFile>& file);
// From now on `fd` is a descriptor of that file; null: of no node. Returns what it was before, so
// that the caller releases it after the kernel has closed it.
Held Put(int fd, Held held);
// The same for all from `first` to `last`, which are being closed.
std::vector<std::pair<int, Held>> TakeRange(unsigned first, unsigned last);

// Around fork(): no other thread is in the table.
void LockTable();
void UnlockTable();
// In the child: from now on this process records its own calls.
void BeginTableInChild();

}  // namespace qvsim::door
