#include "Process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace qvbench {

namespace {

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

[[noreturn]] void Become(const std::string& state, const std::string& dir,
                         const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const std::string& text : command) arguments.push_back(const_cast<char*>(text.c_str()));
    arguments.push_back(nullptr);
    const std::string preload = "LD_PRELOAD=" QV_PRELOAD_FILE;
    const std::string cards = "QVSIM_STATE=" + state;
    char* environment[] = {const_cast<char*>("PATH=/nonexistent"),
                           const_cast<char*>(preload.c_str()), const_cast<char*>(cards.c_str()),
                           nullptr};
    if (state.empty()) environment[1] = nullptr;
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    if (chdir(dir.c_str()) == 0) execve(arguments[0], arguments.data(), environment);
    _exit(127);
}

}  // namespace

Usage Run(const std::string& state, const std::string& dir,
          const std::vector<std::string>& command) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) Become(state, dir, command);
    Usage usage;
    int status = 0;
    rusage resources{};
    if (wait4(pid, &status, 0, &resources) != pid) return usage;
    usage.wallSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    usage.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    usage.cpuSeconds = Seconds(resources.ru_utime) + Seconds(resources.ru_stime);
    usage.peakKiB = resources.ru_maxrss;
    return usage;
}

Folder::Folder() {
    std::string name = std::filesystem::temp_directory_path() / "qvbench-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) abort();
    m_path = name;
}

Folder::~Folder() { std::filesystem::remove_all(m_path); }

}  // namespace qvbench
