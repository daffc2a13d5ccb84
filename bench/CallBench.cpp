// Compares plain calls of the library with the same requests made directly, on the same simulated
// card, one after the other in random order within one run. Prints rows of a table; exit status 1
// when a target is missed, 2 when nothing could be measured.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "QVCapture.h"
#include "QVDriverRequests.h"
#include "Report.h"
#include "support/SimRig.h"

namespace {

using benchmark::State;

constexpr uint32_t kFlashPiece = 4096;  // bytes of one read

QV_CHANNEL g_channel = nullptr;
int g_file = -1;
unsigned char g_piece[kFlashPiece];

void Need(State& state, bool done) {
    if (!done) state.SkipWithError("refused");
}

// ---- Each request twice: through the library, and bare -----------------------------------------

void IdentityThroughLibrary(State& state) {
    _QVCAP_CHANNEL_INFO info;
    for (auto _ : state) Need(state, QVGetChannelInfo(g_channel, &info) == QV_RESULT_OK);
}
void IdentityBare(State& state) {
    _QVCAP_CHANNEL_INFO info;
    for (auto _ : state) Need(state, ioctl(g_file, qv::kGetChannelInfo.code, &info) == 0);
}

void SignalThroughLibrary(State& state) {
    _QVCAP_VIDEO_SIGNAL_STATUS status;
    for (auto _ : state) Need(state, QVGetVideoSignalStatus(g_channel, &status) == QV_RESULT_OK);
}
void SignalBare(State& state) {
    _QVCAP_VIDEO_SIGNAL_STATUS status;
    for (auto _ : state) Need(state, ioctl(g_file, qv::kGetVideoSignalStatus.code, &status) == 0);
}

void FlashThroughLibrary(State& state) {
    unsigned int read = 0;
    for (auto _ : state)
        Need(state,
             QVReadFirmwareData(g_channel, 0x1000, g_piece, kFlashPiece, &read) == QV_RESULT_OK);
}
void FlashBare(State& state) {
    for (auto _ : state) {
        qv::FirmwareDataRecord record{};
        record.offset = 0x1000;
        record.size = kFlashPiece;
        record.address = qv::WireAddress(g_piece);
        Need(state, ioctl(g_file, qv::kReadFirmwareData.code, &record) == 0);
    }
}

// The compiler must not inline a call: the library is shared, as for its users.
struct Pair {
    const char* what;
    void (*library)(State&);
    void (*bare)(State&);
};
constexpr Pair kPairs[] = {
    {"identity record, 224 bytes", IdentityThroughLibrary, IdentityBare},
    {"signal status, 58 bytes", SignalThroughLibrary, SignalBare},
    {"4096 bytes of flash", FlashThroughLibrary, FlashBare},
};

// Stores the time of every repetition; prints nothing.
class Collector : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            nanoseconds[run.run_name.function_name].push_back(run.GetAdjustedCPUTime());
        }
    }
    std::map<std::string, std::vector<double>> nanoseconds;
};

}  // namespace

int main(int argc, char** argv) {
    // In random order, so that a slow moment of the machine affects both sides.
    std::vector<char*> arguments(argv, argv + argc);
    std::string order = "--benchmark_enable_random_interleaving=true";
    std::string often = "--benchmark_repetitions=40";
    std::string time = "--benchmark_min_time=0.05";
    for (std::string* word : {&order, &often, &time}) arguments.push_back(word->data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());

    qvsim::SimRig rig;
    rig.Add(qvsim::Pelix().Channels(1));
    rig.AttachInMemory();
    QVCaptureInitInstance();
    g_channel = QVOpenChannelByPath("/dev/video0");
    g_file = open("/dev/video0", O_RDWR);
    for (const Pair& pair : kPairs) {
        benchmark::RegisterBenchmark((std::string("library ") + pair.what).c_str(), pair.library);
        benchmark::RegisterBenchmark((std::string("bare ") + pair.what).c_str(), pair.bare);
    }
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    close(g_file);
    QVCloseChannel(g_channel);
    QVCaptureExitInstance();

    for (const Pair& pair : kPairs) {
        const auto& library = collector.nanoseconds[std::string("library ") + pair.what];
        const auto& bare = collector.nanoseconds[std::string("bare ") + pair.what];
        if (library.empty() || bare.empty()) {
            fprintf(stderr, "call_bench: %s: a call was refused\n", pair.what);
            return 2;
        }
        // The quickest repetition of each: the machine makes the others longer, and with such short
        // calls by more than the difference that is measured.
        const double quickest = *std::min_element(library.begin(), library.end());
        const double quickestBare = *std::min_element(bare.begin(), bare.end());
        const double ratio = quickest / quickestBare;
        qvbench::Row(
            (std::string("a call of the library / the bare request: ") + pair.what).c_str(),
            qvbench::Text("%.2f (%.0f ns / %.0f ns)", ratio, quickest, quickestBare),
            "at most 1.10", ratio <= 1.10);
    }
    return qvbench::g_missed == 0 ? 0 : 1;
}
