// Streams of this process that read the folder /dev. Any thread; one stream is read by one thread.
#pragma once

#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

namespace qvsim::door {

struct DevFolder {
    std::vector<std::string> names;  // of the nodes when reading began
    size_t next = 0;                 // the next of them; 0: the real entries come first
    alignas(16) unsigned char entry[512];
};

// The stream itself, which may be null.
DIR* NoteFolder(DIR* stream);
void ForgetFolder(DIR* stream);
// Null when it reads another folder, or there are no cards.
std::shared_ptr<DevFolder> FindDevFolder(DIR* stream);

// Around fork(): no other thread is in the table.
void LockFolders();
void UnlockFolders();

}  // namespace qvsim::door
