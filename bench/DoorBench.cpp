// What the preload door costs a request: requests per second through it, divided by those of direct
// calls of the model, alternately within one run. Run by `qvcap-sim run DIR -- door_bench`.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Protocol.h"
#include "QVDriverRequests.h"

namespace {

constexpr int kRequests = 20000;
constexpr int kTurns = 9;

template <class Ask>
double PerSecond(Ask ask) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < kRequests; ++i)
        if (!ask()) std::exit(1);
    return kRequests / std::chrono::duration<double>(Clock::now() - start).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main() {
    const char* const dir = std::getenv("QVSIM_STATE");
    const int fd = open("/dev/video0", O_RDWR);
    if (!dir || fd < 0) {
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
    for (int turn = 0; turn < kTurns; ++turn) {
        directly.push_back(PerSecond(direct));
        through.push_back(PerSecond(door));
        shares.push_back(through.back() / directly.back());
    }
    std::printf("model %.0f/s, door %.0f/s, share %.2f\n", Median(directly), Median(through),
                Median(shares));
    model->Close(file, -1);
    close(fd);
    return 0;
}
