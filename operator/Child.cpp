// Starts qvcap-upgrade and waits for it; never ends it. What it prints is read in ToolOutput.cpp.
#include "Child.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include "Package.h"

namespace qvo {
namespace {

constexpr int kLockInChild = 3;

struct Descriptor {
    explicit Descriptor(int number) : fd(number) {}
    ~Descriptor() {
        if (fd >= 0) close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int fd;
};

[[noreturn]] void Fail(const std::string& what, int error) {
    throw qvf::Mistake(what + ": " + std::strerror(error));
}

// A descriptor above all those that the child sets up, so that no copy overwrites another.
int Raised(int fd) { return fcntl(fd, F_DUPFD_CLOEXEC, 10); }

struct Prepared {
    int input;
    int output;
    int lock;
    int folder;
    int report;  // closed when the program starts; otherwise receives the reason why it did not
    char* const* arguments;
};

// After fork() in a program with threads: only system calls, nothing that allocates memory or takes
// a lock.
[[noreturn]] void Become(const Prepared& prepared) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE}) sigaction(signal, &ignore, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    bool good = setsid() >= 0 && dup2(prepared.input, 0) == 0 && dup2(prepared.output, 1) == 1 &&
                dup2(prepared.output, 2) == 2 && fchdir(prepared.folder) == 0;
    if (good && prepared.lock >= 0) good = dup2(prepared.lock, kLockInChild) == kLockInChild;
    // The child does not inherit this process's descriptors: it would keep a connection open.
    close_range(prepared.lock >= 0 ? kLockInChild + 1 : kLockInChild, ~0U, CLOSE_RANGE_CLOEXEC);
    if (good) execv(prepared.arguments[0], prepared.arguments);
    const int error = errno;
    const ssize_t told = write(prepared.report, &error, sizeof error);
    _exit(told == sizeof error ? 127 : 126);
}

ChildEnd EndOf(int status) {
    if (WIFSIGNALED(status)) return {-1, WTERMSIG(status)};
    return {WEXITSTATUS(status), 0};
}

}  // namespace

Child::Child(const ChildPlan& plan) {
    const Descriptor input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (input.fd < 0) Fail("/dev/null cannot be opened", errno);
    const Descriptor output(
        open(plan.output.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0640));
    if (output.fd < 0) Fail(plan.output + ": cannot be written", errno);
    const Descriptor folder(open(plan.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.fd < 0) Fail(plan.folder + ": cannot be entered", errno);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) Fail("no pipe can be made", errno);
    const Descriptor reader(ends[0]);
    Descriptor writer(Raised(ends[1]));
    close(ends[1]);
    const Descriptor highInput(Raised(input.fd));
    const Descriptor highOutput(Raised(output.fd));
    const Descriptor highLock(plan.lock < 0 ? -1 : Raised(plan.lock));
    const Descriptor highFolder(Raised(folder.fd));

    std::vector<std::string> texts = {plan.program};
    texts.insert(texts.end(), plan.arguments.begin(), plan.arguments.end());
    std::vector<char*> arguments;
    arguments.reserve(texts.size() + 1);
    for (std::string& text : texts) arguments.push_back(text.data());
    arguments.push_back(nullptr);
    const Prepared prepared = {highInput.fd,  highOutput.fd, highLock.fd,
                               highFolder.fd, writer.fd,     arguments.data()};
    m_pid = fork();
    if (m_pid == 0) Become(prepared);
    if (m_pid < 0) Fail("no process can be started", errno);
    close(writer.fd);
    writer.fd = -1;
    int error = 0;
    ssize_t n = 0;
    do {
        n = read(reader.fd, &error, sizeof error);
    } while (n < 0 && errno == EINTR);
    if (n != sizeof error) return;
    while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_end = ChildEnd{127, 0};
    Fail(plan.program + ": cannot be started", error);
}

Child::~Child() {
    if (m_end || m_pid < 0) return;
    while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

std::optional<ChildEnd> Child::Poll() {
    int status = 0;
    if (!m_end && waitpid(m_pid, &status, WNOHANG) == m_pid) m_end = EndOf(status);
    return m_end;
}

bool Child::WaitFor(int milliseconds) {
    if (Poll()) return true;
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
    pollfd waiting = {process.fd, POLLIN, 0};
    poll(&waiting, 1,
         milliseconds);  // an older kernel has no such descriptor: waits without it
    return Poll().has_value();
}

std::string FindTool() {
    std::array<char, PATH_MAX> own = {};
    const ssize_t length = readlink("/proc/self/exe", own.data(), own.size() - 1);
    std::string folder(own.data(), length > 0 ? static_cast<size_t>(length) : 0);
    folder.resize(folder.find_last_of('/') == folder.npos ? 0 : folder.find_last_of('/'));
    // In this program's folder; in the build tree of both; in the folder of administrators'
    // programs.
    const std::string places[] = {folder, folder + "/../sbin", folder + "/../tool",
                                  "/usr/local/sbin", "/usr/sbin"};
    for (const std::string& place : places) {
        std::string path = place + "/qvcap-upgrade";
        if (access(path.c_str(), X_OK) == 0) return path;
    }
    throw qvf::Mistake("qvcap-upgrade is neither beside this program nor in /usr/sbin: install it");
}

}  // namespace qvo
