#include "QvcapRig.h"

#include "../QvcapProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "CardsState.h"

namespace qvtest {
namespace {

// A run that cannot be set up is a broken test, not a failing one.
void Require(bool good, const char* what) {
    if (good) return;
    ADD_FAILURE() << what << ": " << std::strerror(errno);
    std::abort();
}

bool HasOwnMounts() {
    return unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool SeesReadOnly(const char* folder) {
    return HasOwnMounts() && mount(folder, folder, nullptr, MS_BIND, nullptr) == 0 &&
           mount(folder, folder, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

bool SeesSmall(const char* folder, const char* size) {
    return HasOwnMounts() && mount("tmpfs", folder, "tmpfs", 0, size) == 0;
}

}  // namespace

std::string FileText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool FaultsHaveSeen(qvsim::SimRig& cards, uint32_t requests) {
    constexpr size_t kCounts = 1216;  // in the page that processes share, 4 bytes for each fault
    const std::string page = FileText(cards.Dir() + "/cards.live");
    for (size_t at = kCounts; at + 4 <= page.size(); at += 4) {
        uint32_t count = 0;
        std::memcpy(&count, page.data() + at, sizeof count);
        if (count >= requests) return true;
    }
    return false;
}

void Pause() { usleep(2000); }

std::vector<nlohmann::json> UpgradeRun::Events() const {
    std::vector<nlohmann::json> events;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        events.push_back(nlohmann::json::parse(line, nullptr, false));
        EXPECT_TRUE(events.back().is_object()) << line;
    }
    return events;
}

std::vector<nlohmann::json> UpgradeRun::Events(const std::string& kind) const {
    std::vector<nlohmann::json> some;
    for (const nlohmann::json& event : Events())
        if (event.value("event", "") == kind) some.push_back(event);
    return some;
}

nlohmann::json UpgradeRun::Report() const {
    const std::vector<nlohmann::json> ends = Events("end");
    EXPECT_EQ(1u, ends.size()) << output << errors;
    return ends.empty() ? nlohmann::json{{"cards", nlohmann::json::array()}} : ends.back();
}

RunningQvcap::~RunningQvcap() {
    if (m_pid > 0) Wait();
}

std::string RunningQvcap::Output() const { return FileText(m_output); }

bool RunningQvcap::HasEnded() const {
    siginfo_t state = {};
    return waitid(P_PID, static_cast<id_t>(m_pid), &state, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           state.si_pid == m_pid;
}

bool RunningQvcap::WaitFor(const std::string& text) {
    for (bool ended = false;; Pause()) {
        if (Output().find(text) != std::string::npos) return true;
        if (ended) return false;
        ended = HasEnded();
    }
}

// Whatever a run prints as JSON is what its schema says.
void ExpectSchema(const UpgradeRun& run) {
    std::string errors;
    if (run.signal == 0 && run.output.starts_with("{\"event\""))
        errors = SchemaErrorsOfLines("upgrade.schema.json", run.output);
    else if (run.output.starts_with("{\"schema\":\"qvcap-history\""))
        errors = SchemaErrors("history.schema.json", run.output);
    EXPECT_EQ("", errors);
}

UpgradeRun RunningQvcap::Wait() {
    UpgradeRun run;
    int status = 0;
    Require(waitpid(m_pid, &status, 0) == m_pid, "waitpid");
    m_pid = -1;
    if (WIFEXITED(status)) run.status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
    run.output = FileText(m_output);
    run.errors = FileText(m_errors);
    ExpectSchema(run);
    return run;
}

QvcapRig::QvcapRig() {
    for (const char* name : {"/packages", "/bin", "/runs"})
        Require(mkdir((m_root + name).c_str(), 0755) == 0, "mkdir");
    for (const char* name : {"poweroff", "sudo", "sync", "reboot"})
        StandIn(name, std::string("echo '") + name + "'");
    std::ofstream(m_root + "/leaks") << "leak:QVOpenChannelByPath\n";
}

void QvcapRig::StandIn(const std::string& name, const std::string& body) {
    const std::string path = m_root + "/bin/" + name;
    std::ofstream(path) << "#!/bin/sh\nexec >>'" << m_root << "/commands'\n" << body << "\n";
    Require(chmod(path.c_str(), 0755) == 0, "chmod of a stand-in");
}

std::string QvcapRig::Commands() const { return FileText(m_root + "/commands"); }

std::unique_ptr<RunningQvcap> QvcapRig::StartProgram(const std::string& file,
                                                     const std::string& name,
                                                     const std::string& folder,
                                                     const std::vector<std::string>& arguments) {
    std::vector<std::string> environment = {
        "PATH=" + m_root + "/bin:/usr/bin:/bin",
        "LD_PRELOAD=" + qvsim::ProgramFile(QV_PRELOAD_FILE),
        "QVSIM_STATE=" + cards.Dir(),
        "ASAN_OPTIONS=verify_asan_link_order=0",
        "LSAN_OPTIONS=print_suppressions=0:suppressions=" + m_root + "/leaks",
        // No test speaks to this machine's own bus.
        "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + m_root + "/no-bus",
    };
    environment.insert(environment.end(), m_environment.begin(), m_environment.end());
    std::vector<std::string> all = {name};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv, envp;
    for (std::string& text : all) argv.push_back(text.data());
    for (std::string& text : environment) envp.push_back(text.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    const std::string program = qvsim::ProgramFile(file);
    const std::string base = m_root + "/runs/" + std::to_string(++m_runs);
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC;
    const int output = open((base + ".out").c_str(), flags, 0644);
    const int errors = open((base + ".err").c_str(), flags, 0644);
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t pid = fork();
    Require(pid >= 0, "fork");
    if (pid == 0) {
        dup2(input, 0);
        dup2(output, 1);
        dup2(errors, 2);
        const rlimit limit = {m_fileLimit, m_fileLimit};
        if (m_fileLimit > 0) setrlimit(RLIMIT_FSIZE, &limit);
        if (m_fileLimit > 0) signal(SIGXFSZ, SIG_IGN);
        if (m_ignored != 0) signal(m_ignored, SIG_IGN);
        if (!folder.empty() && chdir(folder.c_str()) != 0) _exit(126);
        if (!m_readOnly.empty() && !SeesReadOnly(m_readOnly.c_str())) _exit(126);
        if (!m_small.empty() && !SeesSmall(m_small.c_str(), m_size.c_str())) _exit(126);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    for (const int fd : {output, errors, input}) close(fd);
    return std::make_unique<RunningQvcap>(pid, base + ".out", base + ".err");
}

std::unique_ptr<RunningQvcap> QvcapRig::Start(const std::vector<std::string>& arguments) {
    return StartProgram(QV_QVCAP_FILE, "qvcap", "", arguments);
}

std::unique_ptr<RunningQvcap> QvcapRig::StartTool(const std::vector<std::string>& arguments) {
    return StartProgram(QV_TOOL_FILE, "qvcap-upgrade", Packages(), arguments);
}

UpgradeRun QvcapRig::Tool(const std::vector<std::string>& arguments) {
    return StartTool(arguments)->Wait();
}

UpgradeRun QvcapRig::Run(const std::vector<std::string>& arguments) {
    return Start(arguments)->Wait();
}

std::unique_ptr<RunningQvcap> QvcapRig::StartUpgrade(const std::vector<std::string>& options) {
    std::vector<std::string> all = {"upgrade", "--packages", Packages(), "--log",
                                    Log(),     "--lock",     Lock()};
    all.insert(all.end(), options.begin(), options.end());
    return Start(all);
}

UpgradeRun QvcapRig::Upgrade(const std::vector<std::string>& options) {
    return StartUpgrade(options)->Wait();
}

std::vector<std::string> QvcapRig::States() {
    const UpgradeRun run = Run({"status", "--json", "--packages", Packages()});
    const nlohmann::json report = nlohmann::json::parse(run.output, nullptr, false);
    std::vector<std::string> states;
    EXPECT_TRUE(report.is_object() && report.contains("cards")) << run.output << run.errors;
    if (report.is_object())
        for (const nlohmann::json& card : report.value("cards", nlohmann::json::array()))
            states.push_back(card.value("state", ""));
    return states;
}

void QvcapRig::SwapNodes(size_t board, size_t other) {
    qvsim::CardsState state;
    ASSERT_EQ("", qvsim::LoadState(cards.Dir(), state));
    std::swap(state.boards.at(board).channels.at(0).info,
              state.boards.at(other).channels.at(0).info);
    ASSERT_EQ("", qvsim::SaveState(cards.Dir(), state));
}

size_t QvcapRig::Changes() {
    size_t changes = 0;
    for (const std::string& line : cards.Journal())
        changes += line.find("EraseFirmwareData") != line.npos ||
                   line.find("WriteFirmwareData") != line.npos;
    return changes;
}

}  // namespace qvtest
