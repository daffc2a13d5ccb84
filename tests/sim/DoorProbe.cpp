// What a program can do with a node of simulated cards, one line each: "NAME: RESULT". Run as root,
// or under the preload door; the same on served nodes. See door-probe.expected.
//
// Without arguments it makes the table. `DoorProbe FD` asks that descriptor for something,
// `DoorProbe leave HOW` opens nodes and ends without closing them,
// `DoorProbe daemon FILE` goes into the background and writes what it was answered there.
#include "DoorProbe.h"

#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "QVDriverRequests.h"

namespace probe {
namespace {

std::string OpenAs(const char* path, int flags) {
    const int fd = open(path, flags, 0600);
    const std::string result = fd < 0 ? Error() : Ask(fd);
    if (fd >= 0) close(fd);
    return result;
}

void Opens() {
    char folder[] = "/tmp/door-probe-XXXXXX";
    if (!mkdtemp(folder)) std::exit(2);
    const std::string link = std::string(folder) + "/link";
    const std::string chain = std::string(folder) + "/chain";
    if (symlink(kNode, link.c_str()) != 0 || symlink("link", chain.c_str()) != 0) std::exit(2);
    Row("open", OpenAs(kNode, O_RDWR));
    Row("open.read_only", OpenAs(kNode, O_RDONLY));
    Row("open.doubled_slash", OpenAs("/dev//video0", O_RDWR));
    Row("open.dots", OpenAs("/tmp/.././dev/video0", O_RDWR));
    Row("open.slash_behind", OpenAs("/dev/video0/", O_RDWR));
    Row("open.missing", OpenAs("/dev/video99", O_RDWR));
    Row("open.link", OpenAs(link.c_str(), O_RDWR));
    Row("open.link_to_link", OpenAs(chain.c_str(), O_RDWR));
    Row("open.link_nofollow", OpenAs(link.c_str(), O_RDWR | O_NOFOLLOW));
    Row("open.link_create", OpenAs(link.c_str(), O_RDWR | O_CREAT));
    Row("open.create", OpenAs(kNode, O_RDWR | O_CREAT));
    Row("open.create_exclusive", OpenAs(kNode, O_RDWR | O_CREAT | O_EXCL));
    Row("open.directory", OpenAs(kNode, O_RDONLY | O_DIRECTORY));
    Row("open.direct", OpenAs(kNode, O_RDWR | O_DIRECT));
    Row("open.place", OpenAs(kNode, O_PATH));
    const int made = creat(kNode, 0600);
    Row("creat", made < 0 ? Error() : Ask(made));
    close(made);
    const int dev = open("/dev", O_RDONLY | O_DIRECTORY);
    const int at = openat(dev, "video0", O_RDWR);
    Row("openat", at < 0 ? Error() : Ask(at));
    close(at);
    close(dev);
    const int before = open(".", O_RDONLY | O_DIRECTORY);
    Row("open.relative", chdir("/dev") != 0 ? Error() : OpenAs("video0", O_RDWR));
    Row("open.relative_up", chdir("/tmp") != 0 ? Error() : OpenAs("../dev/video0", O_RDWR));
    if (fchdir(before) != 0) std::exit(2);
    close(before);
    struct stat status {};
    Row("stat.link", stat(link.c_str(), &status) != 0 ? Error() : TypeOf(status.st_mode));
    Row("lstat.link", lstat(link.c_str(), &status) != 0 ? Error() : TypeOf(status.st_mode));
    Row("access.link", Result(access(link.c_str(), R_OK)));
    char* const real = realpath(chain.c_str(), nullptr);
    Row("realpath.link", real ? real : Error());
    std::free(real);
    unlink(chain.c_str());
    unlink(link.c_str());
    rmdir(folder);
}

void Streams() {
    std::FILE* stream = std::fopen(kNode, "r+");
    const int fd = stream ? fileno(stream) : -1;
    Row("fopen", fd < 0 ? Error() : Ask(fd));
    errno = 0;
    if (stream) Row("fread", std::fgetc(stream) == EOF && errno == 0 ? "end" : Error());
    if (stream) std::fclose(stream);
    Row("fclose", Ask(fd));
    stream = std::fopen(kNode, "w");
    Row("fopen.write", stream ? Ask(fileno(stream)) : Error());
    if (stream) std::fclose(stream);
    stream = std::fopen("/dev/null", "r");
    if (stream) stream = std::freopen(kNode, "r+", stream);
    Row("freopen", stream ? Ask(fileno(stream)) : Error());
    if (stream) stream = std::freopen("/dev/null", "r", stream);
    Row("freopen.away", stream ? Ask(fileno(stream)) : Error());
    if (stream) std::fclose(stream);
}

void Looks() {
    struct stat status {};
    struct stat other {};
    Row("stat", stat(kNode, &status) != 0 ? Error() : TypeOf(status.st_mode));
    Row("lstat", lstat(kNode, &other) != 0 ? Error() : TypeOf(other.st_mode));
    Row("stat.missing", Result(stat("/dev/video99", &other)));
    Row("fstatat",
        fstatat(AT_FDCWD, "/dev//video0", &other, 0) != 0 ? Error() : TypeOf(other.st_mode));
    const int fd = open(kNode, O_RDWR);
    Row("fstat", fstat(fd, &other) != 0 ? Error() : TypeOf(other.st_mode));
    Row("fstat.same_as_stat", other.st_ino == status.st_ino && other.st_rdev == status.st_rdev &&
                                      other.st_dev == status.st_dev
                                  ? "yes"
                                  : "no");
    Row("fstatat.descriptor",
        fstatat(fd, "", &other, AT_EMPTY_PATH) != 0 ? Error() : TypeOf(other.st_mode));
    struct statx wide {};
    Row("statx",
        statx(AT_FDCWD, kNode, 0, STATX_BASIC_STATS, &wide) != 0 ? Error() : TypeOf(wide.stx_mode));
    Row("statx.same_device", wide.stx_rdev_minor == minor(status.st_rdev) ? "yes" : "no");
    const std::string name = "/proc/self/fd/" + std::to_string(fd);
    char target[64] = {};
    Row("readlink.descriptor",
        readlink(name.c_str(), target, sizeof target - 1) < 0 ? Error() : target);
    Row("stat.descriptor_name", stat(name.c_str(), &other) != 0 ? Error() : TypeOf(other.st_mode));
    Row("lstat.descriptor_name",
        lstat(name.c_str(), &other) != 0 ? Error() : TypeOf(other.st_mode));
    Row("open.descriptor_name", OpenAs(name.c_str(), O_RDWR));
    close(fd);
    Row("access", Result(access(kNode, R_OK | W_OK)));
    Row("access.execute", Result(access(kNode, X_OK)));
    Row("access.missing", Result(access("/dev/video99", F_OK)));
    Row("faccessat", Result(faccessat(AT_FDCWD, kNode, F_OK, AT_EACCESS)));
    Row("readlink", Result(static_cast<int>(readlink(kNode, target, sizeof target))));
    char* const real = realpath("/tmp/../dev//video0", nullptr);
    Row("realpath", real ? real : Error());
    std::free(real);
}

std::string Listed(bool again) {
    DIR* const dev = opendir("/dev");
    if (!dev) return Error();
    std::string found = "no";
    int seen = 0;
    for (int pass = 0; pass < (again ? 2 : 1); ++pass) {
        while (const dirent* entry = readdir(dev)) {
            if (std::strcmp(entry->d_name, "video0") != 0) continue;
            found = entry->d_type == DT_CHR ? "character device" : "another type";
            ++seen;
        }
        rewinddir(dev);
    }
    closedir(dev);
    return seen == (again ? 2 : 1) ? found : "seen " + std::to_string(seen) + " times";
}

std::string PlaceKept() {
    DIR* const dev = opendir("/dev");
    if (!dev) return Error();
    long place = telldir(dev);
    const dirent* entry = nullptr;
    while ((entry = readdir(dev)) && std::strcmp(entry->d_name, "video0") != 0)
        place = telldir(dev);
    while (readdir(dev)) continue;
    seekdir(dev, place);
    entry = readdir(dev);
    const std::string name = entry ? entry->d_name : "none";
    closedir(dev);
    return name;
}

void Lists() {
    Row("readdir", Listed(false));
    Row("readdir.again", Listed(true));
    Row("seekdir", PlaceKept());
    struct dirent** list = nullptr;
    const int count = scandir(
        "/dev/", &list,
        [](const dirent* entry) { return std::strcmp(entry->d_name, "qv-event") == 0 ? 1 : 0; },
        nullptr);
    Row("scandir", std::to_string(count));
    for (int i = 0; i < count; ++i) std::free(list[i]);
    std::free(list);
    glob_t found{};
    Row("glob", glob("/dev/video0*", 0, nullptr, &found) == 0 ? "found" : "not found");
    globfree(&found);
}

void Doubles() {
    const int fd = open(kNode, O_RDWR);
    const int one = dup(fd);
    Row("dup", Ask(one));
    const int two = fcntl(fd, F_DUPFD_CLOEXEC, 100);
    Row("fcntl.dup", Ask(two));
    Row("fcntl.dup_flag", std::to_string(fcntl(two, F_GETFD)));
    close(fd);
    Row("dup.outlives", Ask(one));
    const int other = open("/dev/null", O_RDWR);
    Row("dup2", dup2(one, other) < 0 ? Error() : Ask(other));
    Row("dup2.same", dup2(one, one) == one ? Ask(one) : Error());
    const int null = open("/dev/null", O_RDWR);
    Row("dup2.over_node", dup2(null, other) < 0 ? Error() : Ask(other));
    Row("dup3", dup3(one, other, O_CLOEXEC) < 0 ? Error() : Ask(other));
    Row("dup2.refused", dup2(9999, other) < 0 ? Error() + ", " + Ask(other) : "done");
    Row("ioctl.close_at_exec",
        ioctl(one, FIOCLEX) != 0 ? Error() : std::to_string(fcntl(one, F_GETFD)));
    Row("ioctl.keep_at_exec",
        ioctl(one, FIONCLEX) != 0 ? Error() : std::to_string(fcntl(one, F_GETFD)));
    int on = 1;
    Row("ioctl.non_blocking", ioctl(one, FIONBIO, &on) != 0             ? Error()
                              : (fcntl(two, F_GETFL) & O_NONBLOCK) != 0 ? "set"
                                                                        : "not set");
    Row("close_range",
        close_range(static_cast<unsigned>(other), static_cast<unsigned>(other), 0) != 0
            ? Error()
            : Ask(other));
    Row("close_range.later",
        close_range(static_cast<unsigned>(one), static_cast<unsigned>(one), 4) != 0 ? Error()
                                                                                    : Ask(one));
    Row("close", close(one) != 0 ? Error() : Ask(one));
    Row("close.twice", Result(close(one)));
    closefrom(two);
    Row("closefrom", Ask(two));
    const int read = open(kNode, O_RDONLY);
    Row("fcntl.access", (fcntl(read, F_GETFL) & O_ACCMODE) == O_RDONLY ? "read" : "another");
    close(read);
    close(null);
}

std::string Passed(int fd) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) != 0) return Error();
    char byte = 'x';
    iovec part{&byte, 1};
    alignas(cmsghdr) char room[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = room;
    message.msg_controllen = sizeof room;
    cmsghdr* const control = CMSG_FIRSTHDR(&message);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_RIGHTS;
    control->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(control), &fd, sizeof fd);
    if (sendmsg(pair[0], &message, 0) < 0 || recvmsg(pair[1], &message, 0) < 0) return Error();
    int received = -1;
    std::memcpy(&received, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof received);
    close(pair[0]);
    close(pair[1]);
    const std::string result = Ask(received);
    close(received);
    return result;
}

void OtherCalls() {
    const int fd = open(kNode, O_RDWR);
    char byte = 0;
    Row("read", Result(static_cast<int>(read(fd, &byte, 1))));
    Row("write", Result(static_cast<int>(write(fd, &byte, 1))));
    Row("pread", Result(static_cast<int>(pread(fd, &byte, 1, 0))));
    Row("pwrite", Result(static_cast<int>(pwrite(fd, &byte, 1, 0))));
    Row("ftruncate", Result(ftruncate(fd, 0)));
    Row("fsync", Result(fsync(fd)));
    pollfd waiting{fd, POLLIN | POLLOUT, 0};
    const int ready = poll(&waiting, 1, 0);
    Row("poll", std::to_string(ready) + (waiting.revents == (POLLIN | POLLOUT) ? " in out" : ""));
    const int several = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    Row("epoll", Result(epoll_ctl(several, EPOLL_CTL_ADD, fd, &event)));
    close(several);
    void* const map = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    Row("mmap", map == MAP_FAILED ? Error() : "mapped");
    if (map != MAP_FAILED) munmap(map, 4096);
    Row("lseek", std::to_string(lseek(fd, 0, SEEK_END)));
    Row("isatty", isatty(fd) ? "yes" : Error());
    Row("flock", Result(flock(fd, LOCK_EX | LOCK_NB)));
    const int second = open(kNode, O_RDWR);
    Row("flock.second", Result(flock(second, LOCK_EX | LOCK_NB)));
    close(second);
    uint32_t value = 0;
    Row("ioctl.unknown", Result(ioctl(fd, 0x80045803, &value)));
    Row("ioctl.other_node", Result(ioctl(fd, qv::kCreateEvent.code, &value)));
    Row("descriptor.passed", Passed(fd));
    close(fd);
}

}  // namespace
}  // namespace probe

int main(int argc, char** argv) {
    if (argc > 2 && std::string(argv[1]) == "daemon") return probe::Daemon(argv[2]);
    if (argc > 2) return probe::Leave(argv[2]);
    if (argc > 1) {
        std::printf("%s\n", probe::Ask(std::atoi(argv[1])).c_str());
        return 0;
    }
    // Without cards some of what follows would make files.
    const int node = open("/dev/video0", O_RDWR);
    if (probe::Ask(node) != "ok") return 2;
    close(node);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    probe::Opens();
    probe::Streams();
    probe::Looks();
    probe::Lists();
    probe::Doubles();
    probe::OtherCalls();
    probe::BadPointers();
    probe::Signals();
    probe::Processes();
    return 0;
}
