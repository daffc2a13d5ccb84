// Scripted V4L2 nodes: the functions of libv4l2 and of the system that lead to them; see
// FakeV4l2.h.
#include <fcntl.h>
#include <libv4l2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "lib/FakeV4l2.h"

using fake::V4l2;

namespace {

// Logs the call; true when it is to be refused, with errno set.
bool Refused(const char* function, const std::string& arguments) {
    int error = 0;
    if (!V4l2::Get().Enter(function, arguments, &error)) return false;
    errno = error;
    return true;
}

std::string Flags(int flags) {
    std::string text = (flags & O_ACCMODE) == O_RDWR ? "rdwr" : "other";
    if (flags & O_NONBLOCK) text += "|nonblock";
    return text;
}

bool IsVideoNode(const std::string& path) { return path.rfind("/dev/video", 0) == 0; }

void* Argument(va_list list) { return va_arg(list, void*); }

}  // namespace

extern "C" {

int v4l2_open(const char* path, int flags, ...) {
    V4l2& v4l2 = V4l2::Get();
    const std::lock_guard lock(v4l2.mutex);
    if (Refused("v4l2_open", std::string(path) + ", " + Flags(flags))) return -1;
    return v4l2.OpenNode(path);
}

int v4l2_close(int fd) {
    V4l2& v4l2 = V4l2::Get();
    const std::lock_guard lock(v4l2.mutex);
    const int result = v4l2.CloseNode(fd);
    return Refused("v4l2_close", "") ? -1 : result;
}

int v4l2_ioctl(int fd, unsigned long request, ...) {
    va_list list;
    va_start(list, request);
    void* record = Argument(list);
    va_end(list);
    return V4l2::Get().Control("v4l2_ioctl", fd, request, record);
}

void* v4l2_mmap(void*, size_t length, int protection, int flags, int, int64_t offset) {
    V4l2& v4l2 = V4l2::Get();
    const std::lock_guard lock(v4l2.mutex);
    const bool shared = protection == (PROT_READ | PROT_WRITE) && flags == MAP_SHARED;
    if (Refused("v4l2_mmap", std::to_string(length) + ", " + std::to_string(offset) +
                                 (shared ? "" : ", not shared read-write")))
        return MAP_FAILED;
    void* address =
        mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (address != MAP_FAILED) v4l2.mappings[address] = length;
    return address;
}

int v4l2_munmap(void* address, size_t length) {
    V4l2& v4l2 = V4l2::Get();
    const std::lock_guard lock(v4l2.mutex);
    if (Refused("v4l2_munmap", std::to_string(length))) return -1;
    const auto found = v4l2.mappings.find(address);
    if (found == v4l2.mappings.end() || found->second != length) {
        errno = EINVAL;
        return -1;
    }
    v4l2.mappings.erase(found);
    return munmap(address, length);
}

int open(const char* path, int flags, ...) {
    V4l2& v4l2 = V4l2::Get();
    if (IsVideoNode(path)) {
        const std::lock_guard lock(v4l2.mutex);
        return Refused("open", std::string(path) + ", " + Flags(flags)) ? -1 : v4l2.OpenNode(path);
    }
    va_list list;
    va_start(list, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(list, mode_t) : 0;
    va_end(list);
    return openat(AT_FDCWD, v4l2.Redirect(path).c_str(), flags, mode);
}

int close(int fd) {
    V4l2& v4l2 = V4l2::Get();
    const std::lock_guard lock(v4l2.mutex);
    return v4l2.IsNode(fd) ? v4l2.CloseNode(fd) : static_cast<int>(syscall(SYS_close, fd));
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list list;
    va_start(list, request);
    void* record = Argument(list);
    va_end(list);
    V4l2& v4l2 = V4l2::Get();
    if (v4l2.IsNode(fd)) return v4l2.Control("ioctl", fd, request, record);
    return static_cast<int>(syscall(SYS_ioctl, fd, request, record));
}

int poll(pollfd* waiting, nfds_t count, int timeout) {
    V4l2& v4l2 = V4l2::Get();
    if (count != 1 || !v4l2.IsNode(waiting->fd))
        return static_cast<int>(syscall(SYS_poll, waiting, count, timeout));
    {
        const std::lock_guard lock(v4l2.mutex);
        if (!v4l2.polls.empty()) {
            const fake::PollAnswer answer = v4l2.polls.front();
            v4l2.polls.pop_front();
            waiting->revents = answer.events;
            return answer.result;
        }
        waiting->revents = v4l2.frames.empty() ? 0 : POLLIN;
        if (waiting->revents != 0) return 1;
    }
    usleep(1000);  // shorter than a real wait: the tests have no time to lose
    return 0;
}

ssize_t readlink(const char* path, char* buffer, size_t size) noexcept {
    return readlinkat(AT_FDCWD, V4l2::Get().Redirect(path).c_str(), buffer, size);
}

}  // extern "C"
