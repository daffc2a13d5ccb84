// Who has a node open: each open(2) makes a file in the folder's `open`, and the program gets a
// descriptor of that file.
//
// Each such open file holds a lock. So the kernel counts the descriptors: the lock exists as long
// as one descriptor does, through dup, fork, exec and passing to other processes, and ends with the
// last one, however its process ends. A process that finds a file without a lock writes the close
// line for the process that could not. Any thread; takes the folder's lock.
#pragma once

#include <string>

namespace qvsim {

class Folder;
class Journal;

struct OpenRecord {
    std::string node;  // "/dev/video0"
    int pid = 0;       // who opened it
    int fd = 0;        // and what number it had
};

// A descriptor with these flags of open(2), or -1 and errno. `path` is the file's path, which gets
// its name when the open is in the journal; empty if the file system has no such locks, so that
// nobody can know the holders.
int MakeOpenRecord(Folder& folder, int flags, std::string& path);
void NameOpenRecord(Folder& folder, std::string& path, const OpenRecord& record);
// Call it after a descriptor was closed: true when it was the last one. Then the file is removed,
// and no other caller gets true.
bool EndOpenRecord(Folder& folder, const std::string& path);
// False when `path` is no such file of this folder.
bool ParseOpenRecord(const std::string& dir, const std::string& path, OpenRecord& record);
// Writes the close lines of all processes that have ended without closing.
void CloseForTheDead(Folder& folder, Journal& journal);
// The same for a folder that is only inspected. Does nothing when it has no usable state.
void CloseForTheDead(const std::string& dir);

}  // namespace qvsim
