#include "QvcapProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qvtest {
namespace {

// A run that cannot be set up is a broken test, not a failing one.
void Require(bool good, const char* what) {
    if (good) return;
    ADD_FAILURE() << what << ": " << std::strerror(errno);
    std::abort();
}

void WriteScript(const std::string& path, const std::string& body) {
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    Require(chmod(path.c_str(), 0755) == 0, "chmod of a stand-in");
}

int ExitStatusOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) Require(errno == EINTR, "waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

[[noreturn]] void Become(const std::string& folder, const std::string& file,
                         std::vector<std::string> arguments, std::vector<std::string> environment) {
    std::vector<char*> argv;
    std::vector<char*> envp;
    for (std::string& text : arguments) argv.push_back(text.data());
    for (std::string& text : environment) envp.push_back(text.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    if (chdir(folder.c_str()) == 0) execve(file.c_str(), argv.data(), envp.data());
    _exit(127);
}

void Redirect(int stream, const std::string& path, int flags) {
    const int fd = open(path.c_str(), flags, 0644);
    if (fd < 0 || dup2(fd, stream) < 0) _exit(126);
    if (fd != stream) close(fd);
}

std::string Validate(const std::string& schema, const std::string& json, const char* option) {
    std::string file = testing::TempDir() + "/qvcap-json-XXXXXX";
    const int fd = mkstemp(file.data());
    Require(fd >= 0, "mkstemp");
    close(fd);
    std::ofstream(file, std::ios::binary) << json;
    const std::string errors = file + ".errors";
    const std::string line = "python3 '" QV_VALIDATOR "' '" QV_FORMATS_FOLDER "/" + schema + "' '" +
                             file + "' " + option + " >'" + errors + "' 2>&1";
    const int status = std::system(line.c_str());
    std::string text = ReadWholeFile(errors);
    if (status != 0 && text.empty()) text = "the validator failed without a word";
    if (status == 0 && !text.empty()) text = "the validator said: " + text;
    std::filesystem::remove(file);
    std::filesystem::remove(errors);
    return text;
}

}  // namespace

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

QvcapFolder::QvcapFolder() {
    Require(mkdir(m_work.c_str(), 0755) == 0, "mkdir");
    Require(mkdir((m_root + "/bin").c_str(), 0755) == 0, "mkdir");
    for (const char* name : {"poweroff", "sudo", "shutdown", "reboot", "systemctl"})
        WriteScript(m_root + "/bin/" + name,
                    std::string("echo \"") + name + " $*\" >>'" + m_root + "/commands'");
}

std::vector<std::string> QvcapFolder::Environment(const std::string& cards) const {
    const std::string tool = std::filesystem::path(QV_TOOL_FILE).parent_path();
    return {
        "PATH=" + m_root + "/bin:" + tool + ":/usr/bin:/bin",
        "LC_ALL=C.UTF-8",
        "TERM=xterm",
        "LD_PRELOAD=" QV_PRELOAD_FILE,
        "QVSIM_STATE=" + cards,
        // No test speaks to this machine's own bus.
        "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + m_root + "/no-bus",
        // A sanitizer's own library stands behind the preloaded one; one channel without a package
        // stays open in the tool on purpose.
        "ASAN_OPTIONS=verify_asan_link_order=0",
        "LSAN_OPTIONS=print_suppressions=0:suppressions=" + m_root + "/leaks",
    };
}

QvcapRun QvcapFolder::RunProgram(qvsim::SimRig& rig, const std::string& file,
                                 const std::string& name,
                                 const std::vector<std::string>& arguments) {
    std::ofstream(m_root + "/leaks") << "leak:QVOpenChannelByPath\n";
    const std::vector<std::string> environment = Environment(rig.Dir());
    std::vector<std::string> all = {name};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const pid_t child = fork();
    Require(child >= 0, "fork");
    if (child == 0) {
        Redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
        Redirect(STDOUT_FILENO, m_root + "/out", O_WRONLY | O_CREAT | O_TRUNC);
        Redirect(STDERR_FILENO, m_root + "/err", O_WRONLY | O_CREAT | O_TRUNC);
        Become(m_work, file, all, environment);
    }
    QvcapRun run;
    run.status = ExitStatusOf(child);
    run.output = ReadWholeFile(m_root + "/out");
    run.errors = ReadWholeFile(m_root + "/err");
    return run;
}

QvcapRun QvcapFolder::Run(qvsim::SimRig& rig, const std::vector<std::string>& arguments) {
    return RunProgram(rig, QV_QVCAP_FILE, "qvcap", arguments);
}

QvcapRun QvcapFolder::Tool(qvsim::SimRig& rig, const std::vector<std::string>& arguments) {
    return RunProgram(rig, QV_TOOL_FILE, "qvcap-upgrade", arguments);
}

QvcapRun QvcapFolder::OnTerminal(qvsim::SimRig& rig, const std::vector<std::string>& arguments,
                                 int columns) {
    const std::vector<std::string> environment = Environment(rig.Dir());
    std::vector<std::string> all = {"qvcap"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    winsize size = {};
    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = 24;
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
    Require(child >= 0, "forkpty");
    if (child == 0) Become(m_work, QV_QVCAP_FILE, all, environment);
    QvcapRun run;
    char buffer[4096];
    for (ssize_t n; (n = read(terminal, buffer, sizeof buffer)) > 0;)
        run.output.append(buffer, static_cast<size_t>(n));
    close(terminal);
    run.status = ExitStatusOf(child);
    return run;
}

std::string QvcapFolder::Commands() const { return ReadWholeFile(m_root + "/commands"); }

void AddFaultNow(qvsim::SimRig& rig, const qvsim::Fault& fault) {
    qvsim::CardsState state;
    ASSERT_EQ("", qvsim::LoadState(rig.Dir(), state));
    state.faults.push_back(fault);
    ASSERT_EQ("", qvsim::SaveState(rig.Dir(), state));
}

std::string SchemaErrors(const std::string& schema, const std::string& json) {
    return Validate(schema, json, "");
}

std::string SchemaErrorsOfLines(const std::string& schema, const std::string& lines) {
    return Validate(schema, lines, "--lines");
}

}  // namespace qvtest
