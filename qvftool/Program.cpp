#include "Program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qvf {
namespace {

[[noreturn]] void Fail(const std::string& what, int error) {
    throw Mistake(what + ": " + std::strerror(error));
}

int NewMemoryFile() {
    const int first = memfd_create("qvf", 0);  // inherited: the program opens it by its path
    if (first < 0) Fail("a file in memory cannot be made", errno);
    if (first > STDERR_FILENO) return first;
    // A standard stream is closed: the new program will use its number.
    const int fd = fcntl(first, F_DUPFD, STDERR_FILENO + 1);
    const int error = errno;
    close(first);
    if (fd < 0) Fail("a file in memory cannot be made", error);
    return fd;
}

Bytes ReadBack(int fd) {
    Bytes bytes(static_cast<size_t>(lseek(fd, 0, SEEK_END)));
    lseek(fd, 0, SEEK_SET);
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = read(fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) Fail("a file in memory cannot be read", errno);
        done += static_cast<size_t>(n);
    }
    return bytes;
}

int WaitFor(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

MemoryFile::MemoryFile() : m_fd(NewMemoryFile()) {}

MemoryFile::MemoryFile(const Bytes& bytes) : MemoryFile() { Append(bytes); }

// At the end, without moving the place from which the file is read.
void MemoryFile::Append(std::span<const uint8_t> bytes) {
    struct stat status = {};
    if (fstat(m_fd, &status) != 0) Fail("a file in memory cannot be written", errno);
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = pwrite(m_fd, bytes.data() + done, bytes.size() - done,
                                 status.st_size + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) Fail("a file in memory cannot be written", errno);
        done += static_cast<size_t>(n);
    }
}

MemoryFile::~MemoryFile() { close(m_fd); }

std::string MemoryFile::Path() const { return "/proc/self/fd/" + std::to_string(m_fd); }

ProgramRun RunProgram(const std::vector<std::string>& arguments, const MemoryFile& input,
                      const std::string& package) {
    const MemoryFile output;
    const MemoryFile errors;
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& text : arguments) argv.push_back(const_cast<char*>(text.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t streams;
    posix_spawn_file_actions_init(&streams);
    posix_spawn_file_actions_adddup2(&streams, input.Descriptor(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&streams, output.Descriptor(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&streams, errors.Descriptor(), STDERR_FILENO);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], &streams, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&streams);
    if (error == ENOENT)
        throw Mistake(arguments[0] + " is not installed: install the package " + package);
    if (error != 0) Fail(arguments[0] + " cannot be started", error);
    ProgramRun run;
    run.status = WaitFor(pid);
    run.output = ReadBack(output.Descriptor());
    const Bytes text = ReadBack(errors.Descriptor());
    run.errors.assign(text.begin(), text.end());
    return run;
}

}  // namespace qvf
