// The files of open nodes and their locks. Opens no node itself; the doors do.
#include "OpenRecord.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "CardsState.h"
#include "Folder.h"
#include "Journal.h"
#include "PlainFiles.h"

namespace qvsim {
namespace {

constexpr char kNewName[] = ".new";

std::string OpenFolder(const std::string& dir) { return dir + "/open"; }

// For reading and writing: nobody else ever locks this file.
bool TakeLock(int fd, int flags) {
    struct flock lock {};
    lock.l_type = (flags & O_ACCMODE) == O_RDONLY ? F_RDLCK : F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

// No descriptor of the file is left. A file that cannot be checked counts as held.
bool IsFree(const std::string& path) {
    const int fd = OpenOutOfTheWay(path, O_RDWR);
    if (fd < 0) return false;
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool free = fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_UNLCK;
    CloseOwn(fd);
    return free;
}

std::vector<std::string> NamesIn(const std::string& dir) {
    std::vector<std::string> names;
    DIR* const folder = opendir(dir.c_str());
    if (!folder) return names;
    while (const dirent* entry = readdir(folder))
        if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    closedir(folder);
    // In the order of opening: names begin with its number.
    const auto number = [](const std::string& name) {
        return std::strtoul(name.c_str(), nullptr, 10);
    };
    std::sort(names.begin(), names.end(),
              [&](const std::string& a, const std::string& b) { return number(a) < number(b); });
    return names;
}

}  // namespace

int MakeOpenRecord(Folder& folder, int flags, std::string& path) {
    constexpr int kKept = O_ACCMODE | O_NONBLOCK | O_CLOEXEC | O_APPEND;
    const Folder::Lock lock(&folder);
    const uint32_t number = CountShared<uint32_t>(folder.Page().lastOpen);
    path = OpenFolder(folder.Dir()) + "/" + std::to_string(number) + kNewName;
    const int wanted = (flags & kKept) | O_CREAT | O_TRUNC | O_NOFOLLOW;
    int fd = open(path.c_str(), wanted, 0666);
    if (fd < 0 && errno == ENOENT && mkdir(OpenFolder(folder.Dir()).c_str(), 0777) == 0)
        fd = open(path.c_str(), wanted, 0666);
    if (fd < 0) return -1;
    if (!TakeLock(fd, flags)) {
        unlink(path.c_str());
        path.clear();
    }
    return fd;
}

void NameOpenRecord(Folder& folder, std::string& path, const OpenRecord& record) {
    if (path.empty()) return;
    const Folder::Lock lock(&folder);
    const std::string base = path.substr(0, path.size() - (sizeof kNewName - 1));
    std::string named = base + "." + record.node.substr(record.node.rfind('/') + 1) + "." +
                        std::to_string(record.pid) + "." + std::to_string(record.fd);
    if (rename(path.c_str(), named.c_str()) == 0) path = std::move(named);
}

bool EndOpenRecord(Folder& folder, const std::string& path) {
    if (path.empty()) return true;
    const Folder::Lock lock(&folder);
    return IsFree(path) && unlink(path.c_str()) == 0;
}

bool ParseOpenRecord(const std::string& dir, const std::string& path, OpenRecord& record) {
    const std::string folder = OpenFolder(dir) + "/";
    if (path.compare(0, folder.size(), folder) != 0) return false;
    unsigned number = 0;
    char node[32] = {};
    int end = 0;
    const char* const name = path.c_str() + folder.size();
    if (std::sscanf(name, "%u.%31[a-z0-9-].%d.%d%n", &number, node, &record.pid, &record.fd,
                    &end) != 4 ||
        name[end] != '\0')
        return false;
    record.node = std::string("/dev/") + node;
    return true;
}

void CloseForTheDead(Folder& folder, Journal& journal) {
    const Folder::Lock lock(&folder);
    for (const std::string& name : NamesIn(OpenFolder(folder.Dir()))) {
        const std::string path = OpenFolder(folder.Dir()) + "/" + name;
        if (!IsFree(path) || unlink(path.c_str()) != 0) continue;
        OpenRecord record;  // a file without a name ended before its open was in the journal
        if (ParseOpenRecord(folder.Dir(), path, record))
            journal.Write("close " + record.node + " fd=" + std::to_string(record.fd), Ok(),
                          record.pid);
    }
}

void CloseForTheDead(const std::string& dir) {
    CardsState state;
    if (NamesIn(OpenFolder(dir)).empty() || !LoadState(dir, state).empty()) return;
    std::unique_ptr<Folder> folder;
    Journal journal;
    if (Folder::Open(dir, folder).empty() && journal.Open(*folder, state.journalLimit).empty() &&
        journal.HasRoom())
        CloseForTheDead(*folder, journal);
}

}  // namespace qvsim
