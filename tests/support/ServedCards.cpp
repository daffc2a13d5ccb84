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

// Nodes that cannot be made are a broken test, not a failing one.
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
    server_ = std::make_unique<CuseServer>(model, KernelWays());
    stop_ = eventfd(0, EFD_CLOEXEC);
    Require(stop_ >= 0, std::strerror(errno));
    const std::string error = server_->Start(stop_);
    Require(error.empty(), error);
    thread_ = QuietThread([this] { outcome_ = server_->Run(); });
}

ServingThread::~ServingThread() {
    if (!server_) return;
    const uint64_t one = 1;
    Require(write(stop_, &one, sizeof one) == sizeof one, std::strerror(errno));
    thread_.join();
    EXPECT_EQ("", outcome_);
    close(stop_);
}

void ServingThread::Settle() {
    if (server_) server_->Settle();
}

ServingProcess::ServingProcess(const std::string& dir) {
    int out[2];
    Require(pipe2(out, O_CLOEXEC) == 0, std::strerror(errno));
    const std::string program = ProgramFile(QV_SIM_FILE);
    pid_ = fork();
    Require(pid_ >= 0, std::strerror(errno));
    if (pid_ == 0) {
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
    if (pid_ < 0) return;
    int status = 0;
    kill(pid_, SIGTERM);
    Require(waitpid(pid_, &status, 0) == pid_, std::strerror(errno));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the server ended with status " << status;
}

void ServingProcess::Kill() {
    kill(pid_, SIGKILL);
    Require(waitpid(pid_, nullptr, 0) == pid_, std::strerror(errno));
    pid_ = -1;
}

}  // namespace qvsim
