#include "Trials.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace qvbench {
namespace {

constexpr int kRounds = 12;
constexpr uint16_t kForeignProduct = 0x0999;

}  // namespace

void Require(bool good, const char* what) {
    if (good) return;
    std::fprintf(stderr, "a run failed: %s\n", what);
    std::exit(2);
}

WholeFlashes::WholeFlashes() : package(work.Path() + "/a.qvf") {
    rig.Add(Board(8));
    PackageOf(16 * kMiB).Write(package);
}

Usage WholeFlashes::Do(const std::vector<std::string>& command) {
    return Run(rig.Dir(), work.Path(), command);
}

LargeRack::LargeRack() {
    for (int board = 0; board < kChannels / 8; ++board) rig.Add(Board(8).Board(board));
    for (int i = 0; i < 32; ++i) {
        packages.push_back(work.Path() + "/p" + std::to_string(i) + ".qvf");
        PackageOf(8 * kMiB).ProductCode(kForeignProduct).Write(packages.back());
    }
    std::string last;  // the folder's own order decides which one the tool reads last
    for (const auto& entry : std::filesystem::directory_iterator(work.Path())) last = entry.path();
    PackageOf(8 * kMiB).Write(last);
}

Usage LargeRack::Do(const std::vector<std::string>& command) {
    return Run(rig.Dir(), work.Path(), command);
}

Beside MeasureBeside(WholeFlashes& cards, const std::vector<std::string>& command, int status,
                     const std::vector<std::vector<std::string>>& replays) {
    const std::string running = cards.rig.Dir() + "/journal";
    const std::string journal = cards.work.Path() + "/replay.journal";
    Beside result;
    result.bare.resize(replays.size());
    for (int round = 0; round <= kRounds; ++round) {
        std::filesystem::remove(running);
        const Usage program = cards.Do(command);
        Require(program.status == status, command[0].c_str());
        if (round == 0) std::filesystem::copy_file(running, journal);
        for (size_t i = 0; i < replays.size(); ++i) {
            std::filesystem::remove(running);
            std::vector<std::string> replay = {QV_REPLAY_FILE, journal};
            replay.insert(replay.end(), replays[i].begin(), replays[i].end());
            const Usage bare = cards.Do(replay);
            Require(bare.status == 0, "replay");
            if (round > 0) result.bare[i].Take(bare.cpuSeconds);
        }
        if (round == 0) continue;
        result.program.Take(program.cpuSeconds);
        result.peakKiB = std::max(result.peakKiB, program.peakKiB);
    }
    return result;
}

}  // namespace qvbench
