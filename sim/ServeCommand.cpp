// `qvcap-sim serve`: the cards' nodes as real devices, until SIGTERM or SIGINT.
#include <unistd.h>

#include <cstdio>

#include "Commands.h"
#include "CuseServer.h"

namespace qvsim {

int ServeCommand(const std::string& dir) {
    const int stop = SignalsThatEnd();
    std::shared_ptr<Model> model;
    std::string error = Model::Load(dir, model);
    if (!error.empty()) return Fail(error);
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
