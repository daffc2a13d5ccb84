// Door 1: the cards are in the process of the program that uses them.
//
// Interposed libc functions (Interpose*.cpp) call this for simulated nodes. Any thread. There are
// two ways to get a model: a preload object takes the directory that QVSIM_STATE names, a test
// program calls Attach().
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Descriptors.h"
#include "Model.h"

namespace qvsim {

// Null when this process has no simulated cards.
std::shared_ptr<Model> CurrentModel();

// Test programs only: turns the cards of a state directory on. Returns an error message, empty on
// success. Detach() ends every wait in them; from then on open descriptors give ENODEV.
std::string Attach(const std::string& dir);
void Attach(std::shared_ptr<Model> model);
void Detach();

namespace door {

// Around fork(): the attached cards do not change meanwhile. Returns the cards in use, or null.
std::shared_ptr<Model> HoldAttachment();
void ReleaseAttachment();

// What a path means for the cards.
enum class Sight {
    kElsewhere,  // no name of theirs
    kNode,
    kMissing,    // a name that belongs to them, but no such node exists
    kNotFolder,  // a node with a slash after it
};
// `node` is its path in /dev, unless it is elsewhere.
Sight Look(int dir, const char* path, std::string& node);
// The same for a path that is a link; call it when the path itself led to nothing.
Sight LookThroughLink(int dir, const char* path, std::string& node);
int ErrorOf(Sight sight);

// The descriptor, or -1 and errno. Only for what Look() found.
int OpenNode(Sight sight, const std::string& node, int flags);
// The result of stat for a node.
void Describe(const std::string& node, struct stat& status);

// Each false when `fd` is no node: then nothing was done.
bool Request(int fd, unsigned long code, void* argument, int& result);
// The node of a descriptor, also if it was opened with O_PATH.
bool IsNode(int fd, std::string* node = nullptr);

// Around a call that closes or replaces descriptors: the kernel closes first, then the node is
// closed. Its destruction removes the descriptors from the table and releases their files.
class Closing {
  public:
    explicit Closing(int fd);
    Closing(unsigned first, unsigned last);
    ~Closing();
    Closing(const Closing&) = delete;
    Closing& operator=(const Closing&) = delete;
    // The kernel did not close it.
    void TakeBack();

  private:
    std::vector<std::pair<int, Held>> m_held;
};
// `made` is another descriptor of the file of `fd`; it may have been another file's before.
void Doubled(int fd, int made);

// Adds a descriptor that did not come from an interposed call, but from a parent or another
// process. False when it is no node.
bool Adopt(int fd);
// The same for all that this process was started with.
void AdoptInherited();
// Closes all nodes that are still open, as the kernel does for a process that ends.
void CloseAll();

}  // namespace door
}  // namespace qvsim
