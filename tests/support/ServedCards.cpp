#include "ServedCards.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "FrameWriter.h"

namespace qvsim {
namespace {

// If nodes cannot be made, the test setup is broken; that is not a test failure.
void Require(bool good, const std::string& what) {
    if (good) return;
    ADD_FAILURE() << "served nodes: " << what;
    std::abort();
}

}  // namespace

bool ThroughServedNodes() {
    const char* door = std::getenv("QV_TEST_DOOR");
    if (!door || std::strcmp(door, "preload") == 0) return false;
    Require(std::strcmp(door, "served") == 0, std::string("QV_TEST_DOOR is \"") + door + "\"");
    return true;
}

std::string ProgramFile(const std::string& built) {
    const char* folder = std::getenv("QV_TEST_PROGRAMS");
    return folder ? folder + built.substr(built.rfind('/')) : built;
}

ServingThread::ServingThread(const std::shared_ptr<Model>& model) {
    if (model->NodeNames().empty()) return;
    m_server = std::make_unique<CuseServer>(model, KernelWays());
    m_stop = eventfd(0, EFD_CLOEXEC);
    Require(m_stop >= 0, std::strerror(errno));
    const std::string error = m_server->Start(m_stop);
    Require(error.empty(), error);
    m_thread = QuietThread([this] { m_outcome = m_server->Run(); });
}

ServingThread::~ServingThread() {
    if (!m_server) return;
    const uint64_t one = 1;
    Require(write(m_stop, &one, sizeof one) == sizeof one, std::strerror(errno));
    m_thread.join();
    EXPECT_EQ("", m_outcome);
    close(m_stop);
}

void ServingThread::Settle() {
    if (m_server) m_server->Settle();
}

ServingProcess::ServingProcess(const std::string& dir) {
    int out[2];
    Require(pipe2(out, O_CLOEXEC) == 0, std::strerror(errno));
    const std::string program = ProgramFile(QV_SIM_FILE);
    m_pid = fork();
    Require(m_pid >= 0, std::strerror(errno));
    if (m_pid == 0) {
        dup2(out[1], 1);
        dup2(out[1], 2);
        execl(program.c_str(), "qvcap-sim", "serve", dir.c_str(), nullptr);
        _exit(127);
    }
    close(out[1]);
    std::string printed;
    char piece[512];
    while (printed.find("ready\n") == std::string::npos) {
        const ssize_t n = read(out[0], piece, sizeof piece);
        Require(n > 0, program + " ended: " + printed);
        printed.append(piece, static_cast<size_t>(n));
    }
    close(out[0]);
}

ServingProcess::~ServingProcess() {
    if (m_pid < 0) return;
    int status = 0;
    kill(m_pid, SIGTERM);
    Require(waitpid(m_pid, &status, 0) == m_pid, std::strerror(errno));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the server ended with status " << status;
}

void ServingProcess::Kill() {
    kill(m_pid, SIGKILL);
    Require(waitpid(m_pid, nullptr, 0) == m_pid, std::strerror(errno));
    m_pid = -1;
}

}  // namespace qvsim
