// The second door in tests: the cards as real character devices. QV_TEST_DOOR=served in the
// environment selects it; it needs /dev/cuse and root. Without it tests use the preload door. One
// test at a time: the machine has one /dev.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <thread>

#include "CuseServer.h"

namespace qvsim {

// A value of QV_TEST_DOOR other than "served" and "preload" ends the program.
bool ThroughServedNodes();

// The path of a program under test: where it was built, or in the folder QV_TEST_PROGRAMS.
std::string ProgramFile(const std::string& built);

// Serves from a thread of this process, so that the test can use the model.
class ServingThread {
  public:
    explicit ServingThread(const std::shared_ptr<Model>& model);
    ~ServingThread();  // every wait ends, every file is closed
    ServingThread(const ServingThread&) = delete;
    ServingThread& operator=(const ServingThread&) = delete;

    // As CuseServer::Settle().
    void Settle();

  private:
    std::unique_ptr<CuseServer> m_server;  // null: there is no node to serve
    std::thread m_thread;
    std::string m_outcome;
    int m_stop = -1;
};

// Serves a folder of cards by `qvcap-sim serve`, which must end with status 0.
class ServingProcess {
  public:
    explicit ServingProcess(const std::string& dir);  // returns when the nodes exist
    ~ServingProcess();
    ServingProcess(const ServingProcess&) = delete;
    ServingProcess& operator=(const ServingProcess&) = delete;

    // SIGKILL instead of a regular end.
    void Kill();

  private:
    pid_t m_pid = -1;
};

}  // namespace qvsim
