// What an open, a request and a close of a node do, whatever function of the C library they came
// through. The interposed functions themselves are in the files Interpose*.cpp.
#include "Door.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "AtFork.h"
#include "Inside.h"
#include "OpenRecord.h"
#include "Paths.h"
#include "Protocol.h"
#include "SelfMemory.h"
#include "Waiting.h"

namespace qvsim::door {
namespace {

// The answers that every kind of file gives without its driver.
bool IsOfEveryFile(unsigned long code) {
    return code == FIOCLEX || code == FIONCLEX || code == FIONBIO || code == FIOASYNC;
}

Sight LookAtNode(const std::string& node, const char* path) {
    const std::shared_ptr<Model> model = CurrentModel();
    if (!model) return Sight::kElsewhere;
    if (!model->Exists(node)) return Sight::kMissing;
    return EndsInSlash(path) ? Sight::kNotFolder : Sight::kNode;
}

// A descriptor that asks no driver for anything.
int OpenAsPlace(const std::shared_ptr<Model>& model, const std::string& node, int flags) {
    const int fd = open("/dev/null", O_PATH | (flags & O_CLOEXEC));
    if (fd < 0) return fd;
    auto held = std::make_shared<Description>();
    held->model = model;
    held->path = node;
    Put(fd, std::move(held));
    return fd;
}

// The kernel's checks of the flags before it asks a driver; 0: nothing is wrong.
int WrongFlags(Sight sight, int flags) {
    const bool creates = (flags & O_CREAT) != 0;
    // Creates nothing in the machine's own /dev.
    if (sight == Sight::kMissing) return creates ? EACCES : 0;
    if (creates && (flags & O_EXCL) != 0) return EEXIST;
    if ((flags & O_DIRECTORY) != 0) return ENOTDIR;
    return (flags & O_DIRECT) != 0 && (flags & O_PATH) == 0 ? EINVAL : 0;
}

int AskDriver(const std::shared_ptr<Model>& model, const std::string& node, int flags,
              const sigset_t* outer) {
    int error = 0;
    std::string record;
    // The number comes first: without one no driver is asked.
    int fd = -1;
    const bool exists = model->Exists(node);
    if (exists && (fd = model->MakeDescriptor(flags, record)) < 0) return -1;
    const std::shared_ptr<OpenFile> file = Open(*model, node, error, outer);
    if (file && fd < 0) {  // it came back just now
        model->Close(file, fd);
        error = ENODEV;
    }
    if (!file || fd < 0) {
        if (fd >= 0) close(fd);
        if (exists) model->DropDescriptor(record);
        model->JournalOpen(node, -1, error);
        errno = error;
        return -1;
    }
    model->JournalOpen(*file, record, fd);
    auto held = std::make_shared<Description>();
    held->model = model;
    held->file = file;
    held->path = node;
    // The earlier descriptor of this number was closed by a call that is not interposed.
    const Held stale = Put(fd, std::move(held));
    return fd;
}

}  // namespace

Sight Look(int dir, const char* path, std::string& node) {
    node = NodeOfPath(dir, path);
    return node.empty() ? Sight::kElsewhere : LookAtNode(node, path);
}

Sight LookThroughLink(int dir, const char* path, std::string& node) {
    node = NodeOfLink(dir, path);
    return node.empty() ? Sight::kElsewhere : LookAtNode(node, path);
}

int ErrorOf(Sight sight) {
    return sight == Sight::kMissing ? ENOENT : sight == Sight::kNotFolder ? ENOTDIR : 0;
}

int OpenNode(Sight sight, const std::string& node, int flags) {
    const Inside inside;
    BeReadyForFork();
    int error = sight == Sight::kNotFolder ? ENOTDIR : WrongFlags(sight, flags);
    if (sight == Sight::kMissing && (flags & O_PATH) != 0) error = ENOENT;
    if (error != 0) {
        errno = error;
        return -1;
    }
    const std::shared_ptr<Model> model = CurrentModel();
    return (flags & O_PATH) != 0 ? OpenAsPlace(model, node, flags)
                                 : AskDriver(model, node, flags, inside.OuterMask());
}

void Describe(const std::string& node, struct stat& status) {
    constexpr unsigned kMajor = 240;  // one of those for local use
    constexpr unsigned kEventMinor = 1u << 16;
    const std::shared_ptr<Model> model = CurrentModel();
    struct stat dev {};
    stat("/dev", &dev);
    status = {};
    if (!model || model->Dir().empty() || stat(model->Dir().c_str(), &status) != 0)
        status.st_uid = geteuid();
    const size_t number = node.find_first_of("0123456789");
    const unsigned minor =
        number == std::string::npos
            ? kEventMinor
            : static_cast<unsigned>(std::strtoul(node.c_str() + number, nullptr, 10));
    status.st_dev = dev.st_dev;
    status.st_ino = (1u << 20) + minor;
    status.st_mode = S_IFCHR | S_IRUSR | S_IWUSR;
    status.st_nlink = 1;
    status.st_rdev = makedev(kMajor, minor);
    status.st_size = 0;
    status.st_blocks = 0;
    status.st_blksize = 4096;
}

bool IsNode(int fd, std::string* node) {
    if (g_openNodes.load(std::memory_order_acquire) == 0 || Inside::Is()) return false;
    const Inside inside;
    const Held held = Find(fd);
    if (held && node) *node = held->path;
    return held != nullptr;
}

bool Request(int fd, unsigned long code, void* argument, int& result) {
    if (g_openNodes.load(std::memory_order_acquire) == 0 || Inside::Is()) return false;
    const Inside inside;
    Held held = Find(fd);
    if (!held || IsOfEveryFile(code)) return false;
    Answer answer = Refused(EBADF);
    if (held->file) {
        SelfMemory memory;
        const auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(argument));
        answer = Serve(*held->model, *held->file, static_cast<uint32_t>(code), address, memory,
                       inside.OuterMask());
    }
    held.reset();
    result = answer.error == 0 ? answer.value : -1;
    if (answer.error != 0) errno = answer.error;
    return true;
}

Closing::Closing(int fd) {
    if (g_openNodes.load(std::memory_order_acquire) == 0 || Inside::Is()) return;
    const Inside inside;
    if (Held held = Put(fd, nullptr)) m_held.emplace_back(fd, std::move(held));
}

Closing::Closing(unsigned first, unsigned last) {
    if (g_openNodes.load(std::memory_order_acquire) == 0 || Inside::Is()) return;
    const Inside inside;
    m_held = TakeRange(first, last);
}

void Closing::TakeBack() {
    if (m_held.empty()) return;
    const Inside inside;
    for (auto& [fd, held] : m_held) Put(fd, std::move(held));
    m_held.clear();
}

Closing::~Closing() {
    if (m_held.empty()) return;
    const int error = errno;
    {
        const Inside inside;
        m_held.clear();
    }
    errno = error;
}

void Doubled(int fd, int made) {
    if (fd == made || g_openNodes.load(std::memory_order_acquire) == 0 || Inside::Is()) return;
    const int error = errno;
    {
        const Inside inside;
        const Held before = Put(made, Find(fd));
    }
    errno = error;
}

bool Adopt(int fd) {
    const char* const dir = std::getenv("QVSIM_STATE");
    if (!dir || Inside::Is()) return false;
    const Inside inside;
    char link[4096];
    const std::string name = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = readlink(name.c_str(), link, sizeof link - 1);
    OpenRecord record;
    if (size <= 0) return false;
    link[size] = '\0';
    if (!ParseOpenRecord(dir, link, record)) return false;
    const std::shared_ptr<Model> model = CurrentModel();
    auto file = model ? model->Adopt(link) : nullptr;
    if (!file) return false;
    BeReadyForFork();
    Held held = FindFile(file);
    if (!held) {
        held = std::make_shared<Description>();
        held->model = model;
        held->file = std::move(file);
        held->path = record.node;
    }
    Put(fd, std::move(held));
    return true;
}

void AdoptInherited() {
    std::vector<int> numbers;
    if (DIR* const folder = opendir("/proc/self/fd")) {
        while (const dirent* entry = readdir(folder)) numbers.push_back(std::atoi(entry->d_name));
        closedir(folder);
    }
    for (const int fd : numbers) Adopt(fd);
}

void CloseAll() {
    const Inside inside;
    const std::vector<std::pair<int, Held>> left = TakeRange(0, UINT32_MAX);
    for (const auto& [fd, held] : left) close(fd);
}

}  // namespace qvsim::door
