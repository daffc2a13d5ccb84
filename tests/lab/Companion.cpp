#include "lab/Companion.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace lab {
namespace {

constexpr int kPatienceMs = 60000;

struct ThreadWork {
    double seconds = 0;  // on a processor
    double sleeps = 0;
};

// Of this process's threads of that name, since they began.
ThreadWork WorkOf(const std::string& name) {
    ThreadWork work;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string found;
        std::getline(std::ifstream(task.path() / "comm") >> std::ws, found);
        if (found != name) continue;
        double nanoseconds = 0;
        std::ifstream(task.path() / "schedstat") >> nanoseconds;
        work.seconds += nanoseconds / 1e9;
        std::ifstream status(task.path() / "status");
        const std::string wanted = "voluntary_ctxt_switches:";
        for (std::string line; std::getline(status, line);)
            if (line.rfind(wanted, 0) == 0) work.sleeps += std::stod(line.substr(wanted.size()));
    }
    return work;
}

}  // namespace

Companion::Companion(const std::vector<std::string>& command) {
    int in[2];
    int out[2];
    EXPECT_EQ(0, pipe2(in, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(out, O_CLOEXEC));
    m_child = fork();
    if (m_child == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(out[1], 2);
        std::vector<char*> words;
        for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
        words.push_back(nullptr);
        execvp(words[0], words.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    m_in = in[1];
    m_out = out[0];
}

Companion::~Companion() {
    kill(m_child, SIGTERM);
    int status = -1;
    for (int waited = 0; waitpid(m_child, &status, WNOHANG) == 0; waited += 10) {
        if (waited > kPatienceMs) kill(m_child, SIGKILL);
        usleep(10000);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "it ended with status " << status << ", its last words: " << m_text;
    close(m_in);
    close(m_out);
}

bool Companion::ReadMore() {
    pollfd waiting{m_out, POLLIN, 0};
    if (poll(&waiting, 1, kPatienceMs) <= 0) return false;
    char more[4096];
    const ssize_t n = read(m_out, more, sizeof more);
    if (n > 0) m_text.append(more, static_cast<size_t>(n));
    return n > 0;
}

std::string Companion::Await(const std::string& start) {
    for (;;) {
        for (size_t end; (end = m_text.find('\n')) != std::string::npos;) {
            const std::string line = m_text.substr(0, end);
            m_text.erase(0, end + 1);
            if (line.rfind(start, 0) == 0) return line;
        }
        if (ReadMore()) continue;
        ADD_FAILURE() << "no line '" << start << "', but: '" << m_text << "'";
        return "";
    }
}

void Companion::Tell(const std::string& line) {
    const std::string text = line + "\n";
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(m_in, text.data(), text.size()));
}

std::string Output(const std::string& command) {
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << command;
        return "";
    }
    std::string text;
    char part[4096];
    for (size_t n; (n = std::fread(part, 1, sizeof part, pipe)) > 0;) text.append(part, n);
    EXPECT_EQ(0, pclose(pipe)) << command << ": " << text;
    return text;
}

int DescriptorsOpen() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        count += entry.exists() || entry.is_symlink();
    return count;
}

Load LoadOf(const std::string& threadName) {
    using Clock = std::chrono::steady_clock;
    const ThreadWork before = WorkOf(threadName);
    const Clock::time_point start = Clock::now();
    usleep(1000000);
    const double passed = std::chrono::duration<double>(Clock::now() - start).count();
    const ThreadWork after = WorkOf(threadName);
    EXPECT_GT(after.sleeps, before.sleeps) << threadName << " is not there, or never sleeps";
    return {(after.seconds - before.seconds) / passed, (after.sleeps - before.sleeps) / passed};
}

}  // namespace lab
