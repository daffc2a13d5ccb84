// What the preload door costs a request: requests per second through it, divided by those of direct
// calls of the model, alternately within one run; and how long `qvcap-sim status` takes on the same
// cards. Prints rows of a table; exit status 1 when a target is missed. Run by `qvcap-sim run DIR
// -- door_bench`.
#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Protocol.h"
#include "QVDriverRequests.h"
#include "Report.h"

namespace {

constexpr int kRequests = 20000;
constexpr int kTurns = 9;

using Clock = std::chrono::steady_clock;
using qvbench::Median;
using qvbench::Row;
using qvbench::Text;

template <class Ask>
double PerSecond(Ask ask) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < kRequests; ++i)
        if (!ask()) std::exit(1);
    return kRequests / std::chrono::duration<double>(Clock::now() - start).count();
}

// Milliseconds from the start of the program to its end, without the door and with its output
// thrown away; below 0 when it fails.
double StatusTime(const char* program, const char* dir) {
    const char* const arguments[] = {program, "status", dir, nullptr};
    char* const environment[] = {nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const Clock::time_point start = Clock::now();
    pid_t child = -1;
    int status = -1;
    const int failed = posix_spawn(&child, program, &actions, nullptr,
                                   const_cast<char* const*>(arguments), environment);
    if (failed == 0 && waitpid(child, &status, 0) != child) status = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0 || status != 0) return -1;
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

int main() {
    const char* const dir = std::getenv("QVSIM_STATE");
    const char* const program = std::getenv("QVSIM_PROGRAM");
    const int fd = open("/dev/video0", O_RDWR);
    if (!dir || !program || fd < 0) {
        std::fprintf(stderr, "door_bench: run it by `qvcap-sim run DIR --`\n");
        return 2;
    }
    std::shared_ptr<qvsim::Model> model;
    int refused = 0;
    const auto file =
        qvsim::Model::Load(dir, model).empty() ? model->Open("/dev/video0", refused) : nullptr;
    if (!file) return 2;

    uint32_t value = 0;
    qvsim::OwnMemory memory;
    const auto direct = [&] {
        const auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&value));
        const auto code = static_cast<uint32_t>(qv::kGetTemperature.code);
        return qvsim::ServeRequest(*model, *file, code, address, memory).error == 0;
    };
    const auto door = [&] { return ioctl(fd, qv::kGetTemperature.code, &value) == 0; };
    std::vector<double> directly;
    std::vector<double> through;
    std::vector<double> shares;
    std::vector<double> times;
    for (int turn = 0; turn < kTurns; ++turn) {
        directly.push_back(PerSecond(direct));
        through.push_back(PerSecond(door));
        shares.push_back(through.back() / directly.back());
        times.push_back(StatusTime(program, dir));
        if (times.back() < 0) return 2;
    }
    const double share = Median(shares);
    Row("requests a second through the preload door / by direct calls of the model",
        Text("%.2f (%.0f / %.0f)", share, Median(through), Median(directly)), "at least 0.80",
        share >= 0.8);
    Row("`qvcap-sim status` of 64 channels", Text("%.0f ms", Median(times)), "at most 50 ms",
        Median(times) <= 50);
    model->Close(file, -1);
    close(fd);
    return qvbench::g_missed == 0 ? 0 : 1;
}
