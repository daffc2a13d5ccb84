// `qvcap-sim serve`: the cards' nodes as real devices, until SIGTERM or SIGINT.
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "Commands.h"
#include "CuseServer.h"

namespace qvsim {
namespace {

constexpr int kCannotServe = 1;

int Fail(const std::string& error, int status) {
    std::fprintf(stderr, "qvcap-sim: %s\n", error.c_str());
    return status;
}

}  // namespace

int ServeCommand(const std::string& dir) {
    // Blocked before any thread starts: the signals are read, never delivered.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, nullptr);

    std::string error;
    const std::shared_ptr<Model> model = Model::Load(dir, error);
    if (!model) return Fail(error, kBadInput);
    const int stop = signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK);
    CuseServer server(model, KernelWays());
    error = server.Start(stop);
    if (error.empty() && !server.Stopped()) {
        for (const std::string& name : model->NodeNames())
            std::printf("serving /dev/%s\n", name.c_str());
        std::printf("ready\n");
        std::fflush(stdout);
    }
    if (error.empty()) error = server.Run();
    model->ShutDown();
    if (stop >= 0) close(stop);
    return error.empty() ? 0 : Fail("serve: " + error, kCannotServe);
}

}  // namespace qvsim
