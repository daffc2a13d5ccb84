// Door 1: the cards live in the process of the program that uses them.
//
// Interposed libc functions (Interpose*.cpp) come here with what concerns a simulated node. Any
// thread. Two ways to get a model: a preload object takes the directory that QVSIM_STATE names, a
// test program calls Attach().
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
// success. Detach() ends every wait in them; descriptors that are still open answer ENODEV from
// then on.
std::string Attach(const std::string& dir);
void Attach(std::shared_ptr<Model> model);
void Detach();

namespace door {

// Around fork(): which cards there are does not change meanwhile. Those that are in use, or null.
std::shared_ptr<Model> HoldAttachment();
void ReleaseAttachment();

// What a path is to the cards.
enum class Sight {
    kElsewhere,  // nothing of theirs
    kNode,
    kMissing,    // a name that is theirs alone, and there is no such node
    kNotFolder,  // a node with a slash behind it
};
// `node` is its path in /dev, unless it is elsewhere.
Sight Look(int dir, const char* path, std::string& node);
// The same where the path is a link's; to be asked when the path itself led to nothing.
Sight LookThroughLink(int dir, const char* path, std::string& node);
int ErrorOf(Sight sight);

// The descriptor, or -1 and errno. Only for what Look() found.
int OpenNode(Sight sight, const std::string& node, int flags);
// What stat says of a node.
void Describe(const std::string& node, struct stat& status);

// Each false when `fd` is no node: then nothing was done.
bool Request(int fd, unsigned long code, void* argument, int& result);
// The node that a descriptor is; for descriptors that are mere places, too.
bool IsNode(int fd, std::string* node = nullptr);

// Around a call that closes or replaces descriptors: the kernel first, the node's close then.
// What the descriptors were is forgotten, and let go of, when this ends.
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
// `made` is a further descriptor of what `fd` is; it may have been another's before.
void Doubled(int fd, int made);

// Takes over a descriptor that came by other means than a call that comes by here: from a parent,
// or from another process. False when it is no node.
bool Adopt(int fd);
// The same for all that this process was started with.
void AdoptInherited();
// Closes what is still open, as the kernel does for a process that ends.
void CloseAll();

}  // namespace door
}  // namespace qvsim
