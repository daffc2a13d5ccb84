// Which descriptors of this process are simulated nodes: a table that every interposed call that
// makes, doubles or closes a descriptor keeps right. Any thread inside the door.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Model.h"

namespace qvsim::door {

// One open file of a node, which several descriptors may stand for. Its end is the close of the
// node: after the last descriptor of this process, and after the last request on it.
struct Description {
    std::shared_ptr<Model> model;
    std::shared_ptr<OpenFile> file;  // null: open as a mere place (O_PATH)
    std::string path;                // "/dev/video0"
    int lastNumber = -1;             // of its descriptors, the one closed last

    Description() = default;
    Description(const Description&) = delete;
    Description& operator=(const Description&) = delete;
    ~Description();
};
using Held = std::shared_ptr<Description>;

// How many descriptors are in the table: lets every close and ioctl of a process without any pass.
extern constinit std::atomic<int> g_openNodes;

// Null when it is no node.
Held Find(int fd);
Held FindFile(const std::shared_ptr<OpenFile>& file);
// From now on `fd` stands for that; null: for no node. What it was before, so that the caller lets
// go of it when the kernel has closed it.
Held Put(int fd, Held held);
// The same for all from `first` to `last`, which are closed.
std::vector<std::pair<int, Held>> TakeRange(unsigned first, unsigned last);

// Around fork(): no other thread is in the table.
void LockTable();
void UnlockTable();
// In the child: what this process does from now on counts.
void BeginTableInChild();

}  // namespace qvsim::door
