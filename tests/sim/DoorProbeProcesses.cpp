// The rows about memory, signals, threads and processes.
#include <spawn.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include "DoorProbe.h"

namespace probe {
namespace {

std::string AskAt(int fd, void* record) {
    return Result(ioctl(fd, qv::kGetTemperature.code, record));
}

std::string WriteFrom(int fd, uint64_t address) {
    qv::FirmwareDataRecord record{0x200000, 4096, address};
    return Result(ioctl(fd, qv::kWriteFirmwareData.code, &record));
}

// Handlers run in any thread.
std::atomic<int> g_signals{0};
int g_node = -1;
std::atomic<int> g_wrong{0};

void Count(int) { ++g_signals; }

void AskInHandler(int) {
    const int error = errno;
    if (Ask(g_node) != "ok") g_wrong = 1;
    ++g_signals;
    errno = error;
}

void Handle(int number, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(number, &action, nullptr);
}

// In how many microseconds, and again every so often; 0: not any more.
void Alarm(int microseconds, int every) {
    const itimerval timer{{0, every}, {0, microseconds}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

std::string WaitUnderAlarm(int events, int flags) {
    uint64_t event = 0;
    if (ioctl(events, qv::kCreateEvent.code, &event) != 0) return Error();
    Handle(SIGALRM, Count, flags);
    // More than one: the first may come before the wait begins.
    Alarm(20000, 20000);
    qv::WaitEventRecord record{event, -1};
    const std::string result = Result(ioctl(events, qv::kWaitEvent.code, &record));
    Alarm(0, 0);
    ioctl(events, qv::kCloseEvent.code, &event);
    return result;
}

// More than what a thread has at hand of the C library's memory.
void ReadInHandler(int) {
    unsigned char data[16384];
    const int error = errno;
    qv::FirmwareDataRecord record{0, sizeof data, reinterpret_cast<uintptr_t>(data)};
    if (ioctl(g_node, qv::kReadFirmwareData.code, &record) != 0) g_wrong = 1;
    ++g_signals;
    errno = error;
}

// A handler that interrupts an allocation, among threads, may ask all the same. In a child, which
// can be ended when it hangs.
std::string AskWhileAllocating() {
    const pid_t child = fork();
    if (child == 0) {
        // With one thread alone the C library takes no locks.
        std::thread([] { pause(); }).detach();
        Handle(SIGALRM, ReadInHandler, SA_RESTART);
        Alarm(1000, 2000);
        // Many pieces of many sizes: most of the time is spent with the C library's lock held.
        void* blocks[400] = {};
        for (size_t i = 0; g_signals < 200; ++i) {
            void*& block = blocks[i % 400];
            std::free(block);
            block = std::malloc(2000 + i * 7919 % 60000);
        }
        _exit(g_wrong);
    }
    int status = 0;
    for (int i = 0; i < 3000; ++i, usleep(10000))
        if (waitpid(child, &status, WNOHANG) == child) return status == 0 ? "ok" : "wrong";
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return "hangs";
}

// What a child says, by its exit status.
template <class Body>
std::string InChild(Body body) {
    const pid_t child = fork();
    if (child == 0) _exit(body() ? 0 : 1);
    int status = 0;
    if (waitpid(child, &status, 0) != child) return Error();
    if (!WIFEXITED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return WEXITSTATUS(status) == 0 ? "ok" : "wrong";
}

std::string Exec(int fd) {
    int ends[2];
    if (pipe(ends) != 0) return Error();
    const std::string number = std::to_string(fd);
    const pid_t child = vfork();
    if (child == 0) {
        // In the parent's memory, but with descriptors of its own.
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execl("/proc/self/exe", "DoorProbe", number.c_str(), nullptr);
        _exit(127);
    }
    close(ends[1]);
    char said[64] = {};
    ssize_t size = 0;
    for (ssize_t n;
         (n = read(ends[0], said + size, sizeof said - 1 - static_cast<size_t>(size))) > 0;)
        size += n;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    if (size > 0 && said[size - 1] == '\n') said[size - 1] = '\0';
    return said;
}

std::string ForkAmongThreads(int fd) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            while (!stop) {
                const int mine = open(kNode, O_RDWR);
                Ask(mine);
                close(mine);
            }
        });
    std::string result = "ok";
    for (int i = 0; i < 50 && result == "ok"; ++i)
        result = InChild([&] {
            const int mine = open(kNode, O_RDWR);
            return Ask(fd) == "ok" && Ask(mine) == "ok" && close(mine) == 0;
        });
    stop = true;
    for (std::thread& thread : threads) thread.join();
    return result;
}

}  // namespace

void BadPointers() {
    const int fd = open(kNode, O_RDWR);
    const int events = open("/dev/qv-event", O_RDWR);
    auto* const pages = static_cast<char*>(
        mmap(nullptr, 3 * 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(pages + 4096, 4096, PROT_READ);
    mprotect(pages + 8192, 4096, PROT_NONE);
    Row("memory.null", AskAt(fd, nullptr));
    Row("memory.low", AskAt(fd, reinterpret_cast<void*>(8)));
    Row("memory.mapped", AskAt(fd, pages));
    Row("memory.read_only", AskAt(fd, pages + 4096));
    Row("memory.forbidden", AskAt(fd, pages + 8192));
    Row("memory.over_the_end", AskAt(fd, pages + 8192 - 2));
    Row("memory.static", [&] {
        static uint32_t value = 0;
        return AskAt(fd, &value);
    }());
    Row("memory.taken", Result(ioctl(fd, qv::kEraseFirmwareData.code, pages + 8192)));
    Row("memory.data", WriteFrom(fd, reinterpret_cast<uintptr_t>(pages + 8192)));
    Row("memory.data_over_the_end", WriteFrom(fd, reinterpret_cast<uintptr_t>(pages + 8192 - 100)));
    const qv::MultiWaitEventRecord several{reinterpret_cast<uintptr_t>(pages + 8192), 2, 0};
    Row("memory.list", Result(ioctl(events, qv::kMultiWaitEvent.code, &several)));
    Row("memory.afterwards", Ask(fd));
    munmap(pages, 3 * 4096);
    close(events);
    close(fd);
}

void Signals() {
    const int events = open("/dev/qv-event", O_RDWR);
    Row("signal.ends_wait", WaitUnderAlarm(events, 0));
    Row("signal.ends_wait_restart", WaitUnderAlarm(events, SA_RESTART));
    uint64_t event = 0;
    ioctl(events, qv::kCreateEvent.code, &event);
    qv::WaitEventRecord record{event, 30};
    Row("wait.time_out", Result(ioctl(events, qv::kWaitEvent.code, &record)));
    std::thread setter([&] {
        usleep(20000);
        ioctl(events, qv::kSetEvent.code, &event);
    });
    record.timeout = -1;
    Row("wait.set", Result(ioctl(events, qv::kWaitEvent.code, &record)));
    setter.join();
    g_node = open(kNode, O_RDWR);
    Handle(SIGALRM, AskInHandler, SA_RESTART);
    g_signals = 0;
    Alarm(1000, 500);
    std::string asked = "ok";
    while (g_signals < 100 && asked == "ok") asked = Ask(g_node);
    Alarm(0, 0);
    Row("signal.request_in_handler", g_wrong ? "wrong" : asked);
    Handle(SIGALRM, SIG_DFL, 0);
    g_signals = 0;
    Row("signal.request_while_allocating", AskWhileAllocating());
    close(g_node);
    close(events);
}

// A new process gets the node from the C library, which opens it there.
std::string OpenForSpawned() {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 100, kNode, O_RDWR, 0);
    char name[] = "DoorProbe";
    char number[] = "100";
    char* const arguments[] = {name, number, nullptr};
    pid_t child = -1;
    errno = posix_spawn(&child, "/proc/self/exe", &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (errno != 0) return Error();
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0 ? "ok" : "failed";
}

void Processes() {
    const int fd = open(kNode, O_RDWR);
    Row("fork", InChild([&] { return Ask(fd) == "ok"; }));
    Row("fork.child_closes", InChild([&] { return close(fd) == 0 && Ask(fd) == "EBADF"; }));
    Row("fork.parent_keeps", Ask(fd));
    Row("exec", Exec(fd));
    Row("vfork.parent_keeps", Ask(fd));
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    Row("exec.closes", Exec(fd));
    Row("fork.among_threads", ForkAmongThreads(fd));
    Row("spawn.open", OpenForSpawned());
    close(fd);
}

namespace {

char StateOf(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    const size_t name = line.rfind(") ");
    return name == std::string::npos ? '?' : line[name + 2];
}

// While a thread uses a node for the first time, and waits there, the process forks.
int ForkEarly() {
    std::atomic<pid_t> thread{0};
    std::thread opener([&] {
        thread = gettid();
        close(open(kNode, O_RDWR));
    });
    while (thread == 0 || StateOf(thread) != 'S') usleep(1000);
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        _exit(Ask(open(kNode, O_RDWR)) == "ok" ? 0 : 1);
    }
    opener.join();
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0 ? 0 : 1;
}

}  // namespace

int Leave(const std::string& how) {
    if (how == "early") return ForkEarly();
    const int fd = open(kNode, O_RDWR | O_CLOEXEC);
    const int second = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0 || second < 0) return 2;
    if (how == "child") {
        const pid_t parent = getpid();
        if (fork() != 0) _exit(0);
        // Until the parent is gone, whose end closes nothing yet.
        while (getppid() == parent) usleep(1000);
        const bool asked = Ask(fd) == "ok";
        close(second);
        close(fd);
        _exit(asked ? 0 : 1);
    }
    if (open("/dev/qv-event", O_RDWR | O_CLOEXEC) < 0) return 2;
    if (how == "kill") kill(getpid(), SIGKILL);
    if (how == "terminate") kill(getpid(), SIGTERM);
    if (how == "exec") execl("/proc/self/exe", "DoorProbe", "99", nullptr);
    _exit(3);
}

int Daemon(const char* file) {
    const int before = open(kNode, O_RDWR);
    if (Ask(before) != "ok") return 2;
    if (daemon(1, 1) != 0) return 2;
    for (int fd = 3; fd < 2000; ++fd) close(fd);
    const int fd = open(kNode, O_RDWR);
    const std::string said = Ask(fd);
    close(fd);
    std::FILE* const out = std::fopen(file, "w");
    if (!out) return 2;
    std::fprintf(out, "%s\n", said.c_str());
    return std::fclose(out);
}

}  // namespace probe
