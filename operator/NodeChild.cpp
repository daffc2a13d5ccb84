// Asks a node from a process of its own, because a request that hangs cannot be taken back.
#include "NodeChild.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <type_traits>

#include "Package.h"

namespace qvo {
namespace {

using Clock = std::chrono::steady_clock;

// Sent through a pipe unchanged, in one piece.
static_assert(std::is_trivially_copyable_v<NodeAnswers> && sizeof(NodeAnswers) <= 4096);

[[noreturn]] void AskAndTell(const std::string& path, int pipe) {
    const NodeAnswers answers = AskNode(path);
    const ssize_t written = write(pipe, &answers, sizeof answers);
    _exit(written == sizeof answers ? 0 : 1);
}

// Whether there is something to read, or no writer is left, before the time is over.
bool IsReadableUntil(int fd, Clock::time_point end) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        pollfd waiting = {fd, POLLIN, 0};
        const int ready = poll(&waiting, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

}  // namespace

std::optional<NodeAnswers> AskNodeWithin(const std::string& path, int seconds,
                                         std::set<pid_t>& left) {
    int ends[2];
    if (pipe(ends) != 0)
        throw qvf::Mistake(std::string("a pipe cannot be made: ") + std::strerror(errno));
    const pid_t child = fork();
    if (child == 0) AskAndTell(path, ends[1]);
    const int error = errno;
    close(ends[1]);
    if (child < 0) {
        close(ends[0]);
        throw qvf::Mistake(std::string("a process cannot be started: ") + std::strerror(error));
    }
    NodeAnswers answers;
    const bool came = IsReadableUntil(ends[0], Clock::now() + std::chrono::seconds(seconds)) &&
                      read(ends[0], &answers, sizeof answers) == sizeof answers;
    close(ends[0]);
    // A signal does not end a request that hangs in the driver: so nobody waits for it here.
    if (!came) kill(child, SIGKILL);
    waitpid(child, nullptr, came ? 0 : WNOHANG);
    if (came) return answers;
    left.insert(child);
    return {};
}

}  // namespace qvo
