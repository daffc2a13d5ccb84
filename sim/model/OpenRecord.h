// Who has a node open: for each open(2) a file in the folder's `open`, and what the program gets is
// a descriptor of that very file.
//
// Each holds a lock that belongs to its open file. So the kernel counts: the lock is there as long
// as one descriptor is, through dup, fork, exec and passing on, and goes with the last, however its
// process ends. Whoever finds a file without a lock writes the close line in place of a process
// that could not. Any thread; the folder's lock is taken.
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

// A descriptor with these flags of open(2), or -1 and errno. `path` is the file's, to be named when
// the open is in the journal; empty where the file system has no such locks and nobody can tell who
// holds what.
int MakeOpenRecord(Folder& folder, int flags, std::string& path);
void NameOpenRecord(Folder& folder, std::string& path, const OpenRecord& record);
// A descriptor was closed: true when it was the last one. Then the file is gone, and nobody else
// gets this answer.
bool EndOpenRecord(Folder& folder, const std::string& path);
// False when `path` is no such file of this folder.
bool ParseOpenRecord(const std::string& dir, const std::string& path, OpenRecord& record);
// Writes the close lines of all who have ended without closing.
void CloseForTheDead(Folder& folder, Journal& journal);
// The same for a folder that is only looked at. Nothing happens when it has no usable state.
void CloseForTheDead(const std::string& dir);

}  // namespace qvsim
