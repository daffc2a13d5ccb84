#include "ToolProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace qvtest {
namespace {

constexpr char kQuestionEnd[] = "(n)-NO:";

// A run that cannot be set up is a broken test, not a failing one.
void Require(bool good, const char* what) {
    if (good) return;
    ADD_FAILURE() << what << ": " << std::strerror(errno);
    std::abort();
}

std::string ReadWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteScript(const std::string& path, const std::string& body) {
    std::ofstream file(path);
    file << "#!/bin/sh\n" << body << "\n";
    file.close();
    Require(chmod(path.c_str(), 0755) == 0, "chmod of a stand-in");
}

size_t CountQuestions(const std::string& text) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(kQuestionEnd, at)) != std::string::npos; ++at) ++count;
    return count;
}

bool InOneKeyMode(int terminal) {
    termios settings;
    return tcgetattr(terminal, &settings) == 0 && (settings.c_lflag & (ICANON | ECHO)) == 0;
}

bool SameSettings(const termios& a, const termios& b) {
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
           a.c_lflag == b.c_lflag && std::memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0;
}

// Reads what there is within a moment; false at the end.
bool ReadSome(int fd, std::string* output) {
    pollfd waiting = {fd, POLLIN, 0};
    if (poll(&waiting, 1, 5) <= 0) return true;
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return false;
    output->append(buffer, static_cast<size_t>(n));
    return true;
}

}  // namespace

uint64_t StatusOf(pid_t pid, const std::string& field, int base) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(field + ":"))
            return std::stoull(line.substr(field.size() + 1), nullptr, base);
    ADD_FAILURE() << "no line for " << field;
    return 0;
}

bool IgnoresInterrupts(pid_t pid) { return (StatusOf(pid, "SigIgn", 16) >> (SIGINT - 1) & 1) != 0; }

ToolFolder::ToolFolder() {
    m_work = m_root + "/work";
    m_bin = m_root + "/bin";
    Require(mkdir(m_work.c_str(), 0755) == 0 && mkdir(m_bin.c_str(), 0755) == 0, "mkdir");
    const std::string record = "' >>'" + m_root + "/commands'";
    WriteScript(m_bin + "/poweroff", "echo 'poweroff" + record);
    WriteScript(m_bin + "/sudo", "echo \"sudo $*\" >>'" + m_root + "/commands'");
    WriteScript(m_bin + "/sync", "echo 'sync" + record);
    const char* id = access("/usr/bin/id", X_OK) == 0 ? "/usr/bin/id" : "/bin/id";
    Require(symlink(id, (m_bin + "/id").c_str()) == 0, "symlink");
}

void ToolFolder::UserNumber(int number) {
    unlink((m_bin + "/id").c_str());
    WriteScript(m_bin + "/id", "echo " + std::to_string(number));
}

void ToolFolder::StandIn(const std::string& name, const std::string& body) {
    unlink((m_bin + "/" + name).c_str());
    WriteScript(m_bin + "/" + name, "exec >>'" + m_root + "/commands'\n" + body);
}

std::vector<std::string> ToolFolder::Commands() const {
    std::vector<std::string> lines;
    std::istringstream text(ReadWhole(m_root + "/commands"));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

pid_t ToolFolder::Start(qvsim::SimRig& rig, const std::vector<std::string>& arguments, int input,
                        int output, bool onTerminal) {
    std::vector<std::string> environment = {
        "PATH=" + m_bin,
        // A sanitizer's own library stands behind the preloaded one; one channel without a package
        // stays open on purpose.
        "ASAN_OPTIONS=verify_asan_link_order=0",
        "LSAN_OPTIONS=print_suppressions=0:suppressions=" + m_root + "/leaks",
    };
    if (qvsim::ThroughServedNodes()) {
        m_server = std::make_unique<qvsim::ServingProcess>(rig.Dir());
        if (const char* libraries = std::getenv("LD_LIBRARY_PATH"))
            environment.push_back(std::string("LD_LIBRARY_PATH=") + libraries);
    } else {
        environment.push_back("LD_PRELOAD=" + qvsim::ProgramFile(QV_PRELOAD_FILE) +
                              (m_preload.empty() ? "" : ":" + m_preload));
        environment.push_back("QVSIM_STATE=" + rig.Dir());
    }
    std::ofstream(m_root + "/leaks") << "leak:QVOpenChannelByPath\n";
    environment.insert(environment.end(), m_environment.begin(), m_environment.end());
    std::vector<std::string> all = {"qvcap-upgrade"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv, envp;
    for (std::string& text : all) argv.push_back(text.data());
    for (std::string& text : environment) envp.push_back(text.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    const std::string tool = qvsim::ProgramFile(QV_TOOL_FILE);
    const pid_t pid = fork();
    Require(pid >= 0, "fork");
    if (pid > 0) return pid;
    setsid();
    if (onTerminal) ioctl(input, TIOCSCTTY, 0);
    const int errors = open((m_root + "/errors").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(input, 0);
    dup2(output, 1);
    dup2(errors, 2);
    for (int fd = 3; fd < 256; ++fd) close(fd);
    for (const int fd : m_closed) close(fd);
    if (m_ignoresHangUps) signal(SIGHUP, SIG_IGN);
    if (chdir(m_work.c_str()) == 0) execve(tool.c_str(), argv.data(), envp.data());
    _exit(127);
}

void ToolFolder::Finish(pid_t pid, ToolRun* run) {
    int status = 0;
    rusage used = {};
    Require(wait4(pid, &status, 0, &used) == pid, "wait4");
    run->pageFaults = used.ru_minflt;
    if (WIFEXITED(status)) run->status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) run->signal = WTERMSIG(status);
    run->errors = ReadWhole(m_root + "/errors");
    m_server.reset();
}

void ToolFolder::KillServer() {
    Require(m_server != nullptr, "there is no server");
    m_server->Kill();
}

ToolRun ToolFolder::OnTerminal(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                               const std::vector<std::string>& answers,
                               const std::function<void(int, pid_t)>& atQuestion) {
    size_t answered = 0;
    const ToolRun run = OnTerminal(rig, arguments, [&](const Screen& screen) -> std::string {
        if (answered == answers.size() || !screen.oneKeyMode ||
            CountQuestions(screen.output) <= answered)
            return {};
        const std::string& answer = answers[answered++];
        if (atQuestion) atQuestion(static_cast<int>(answered), screen.pid);
        return answer;
    });
    EXPECT_EQ(answered, answers.size()) << "not every answer was asked for";
    return run;
}

ToolRun ToolFolder::OnTerminal(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                               const std::function<std::string(const Screen&)>& typist) {
    int master = -1;
    int slave = -1;
    Require(openpty(&master, &slave, nullptr, nullptr, nullptr) == 0, "openpty");
    termios before;
    tcgetattr(slave, &before);
    before.c_oflag &= ~static_cast<tcflag_t>(OPOST);  // every byte as it was printed
    tcsetattr(slave, TCSANOW, &before);
    tcgetattr(slave, &before);

    ToolRun run;
    const pid_t pid = Start(rig, arguments, slave, slave, true);
    for (bool ended = false; !ended;) {
        // The parent keeps the slave open, so the end shows in the process, not in the terminal.
        siginfo_t state = {};
        ended = waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                state.si_pid == pid;
        ReadSome(master, &run.output);
        if (ended) continue;
        const std::string typed = typist({run.output, pid, InOneKeyMode(master)});
        Require(write(master, typed.data(), typed.size()) == static_cast<ssize_t>(typed.size()),
                "typing");
    }
    Finish(pid, &run);
    termios after;
    tcgetattr(slave, &after);
    run.terminalRestored = SameSettings(before, after);
    close(slave);
    while (ReadSome(master, &run.output)) {
    }
    close(master);
    return run;
}

ToolRun ToolFolder::ThroughPipe(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                                const std::string& input) {
    int in[2];
    int out[2];
    Require(pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0, "pipe");
    Require(write(in[1], input.data(), input.size()) == static_cast<ssize_t>(input.size()),
            "input");
    close(in[1]);
    const pid_t pid = Start(rig, arguments, in[0], out[1], false);
    close(in[0]);
    close(out[1]);
    ToolRun run;
    while (ReadSome(out[0], &run.output)) {
    }
    close(out[0]);
    Finish(pid, &run);
    return run;
}

ToolRun ToolFolder::UntilPrinted(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                                 const std::string& text) {
    int out[2];
    Require(pipe2(out, O_CLOEXEC) == 0, "pipe");
    const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t pid = Start(rig, arguments, in, out[1], false);
    close(in);
    close(out[1]);
    ToolRun run;
    while (run.output.find(text) == std::string::npos && ReadSome(out[0], &run.output)) {
    }
    close(out[0]);
    Finish(pid, &run);
    return run;
}

ToolRun ToolFolder::UntilPrintedOnTerminal(qvsim::SimRig& rig,
                                           const std::vector<std::string>& arguments,
                                           const std::string& text) {
    int master = -1;
    int slave = -1;
    Require(openpty(&master, &slave, nullptr, nullptr, nullptr) == 0, "openpty");
    fcntl(master, F_SETFD, FD_CLOEXEC);
    const pid_t pid = Start(rig, arguments, slave, slave, true);
    close(slave);
    ToolRun run;
    while (run.output.find(text) == std::string::npos && ReadSome(master, &run.output)) {
    }
    // The kernel ends reads of the terminal before it sends the signal. A stopped process goes on
    // with both.
    kill(pid, SIGSTOP);
    siginfo_t stopped = {};
    waitid(P_PID, static_cast<id_t>(pid), &stopped, WSTOPPED | WEXITED | WNOWAIT);
    close(master);
    Finish(pid, &run);
    return run;
}

ToolRun ToolFolder::IntoFile(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                             const std::string& file) {
    const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int out = open(file.c_str(), O_WRONLY | O_CLOEXEC);
    Require(in >= 0 && out >= 0, "open");
    const pid_t pid = Start(rig, arguments, in, out, false);
    close(in);
    close(out);
    ToolRun run;
    Finish(pid, &run);
    return run;
}

}  // namespace qvtest
