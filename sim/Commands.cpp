#include "Commands.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "FirmwareImage.h"
#include "Journal.h"
#include "Model.h"
#include "Scenario.h"

namespace qvsim {
namespace {

int Fail(const std::string& error) {
    std::fprintf(stderr, "qvcap-sim: %s\n", error.c_str());
    return kBadInput;
}

std::string VersionText(uint32_t version) {
    return std::to_string(version >> 16) + "." + std::to_string(version & 0xFFFF);
}

// A text of a record, which need not be terminated.
template <size_t size>
std::string TextOf(const char (&field)[size]) {
    return std::string(field, strnlen(field, size));
}

std::string StoredText(const NorFlash& flash, uint32_t address) {
    const StoredHeader header = ReadHeader(flash, address);
    if (!header.valid) return "none";
    return VersionText(header.version) + " code " + std::to_string(header.compatibilityCode);
}

std::string PrintBoard(const std::string& dir, const BoardState& board) {
    const _QVCAP_CHANNEL_INFO& info = board.channels[0].info;
    std::printf("board %d: %s, %s, serial %s, hardware %c, %s\n", board.index,
                TextOf(info.familyName).c_str(), TextOf(info.productName).c_str(),
                TextOf(info.boardSerialNumber).c_str(), info.hardwareVersion,
                board.powerLost ? "power lost" : "powered");
    for (size_t i = 0; i < board.channels.size(); ++i) {
        const ChannelState& channel = board.channels[i];
        NorFlash flash;
        const std::string name = FlashFileName(board, static_cast<int>(i));
        if (std::string error = flash.Open(dir + "/" + name, board.flashSize); !error.empty())
            return error;
        const uint32_t main = channel.storage.firmwareOffset;
        std::printf("  /dev/video%d channel %zu: running %s, stored %s, safe %s, %s\n",
                    channel.node, i, VersionText(channel.info.firmwareVersion).c_str(),
                    StoredText(flash, main).c_str(),
                    StoredText(flash, main + kSafeHeaderDistance).c_str(), name.c_str());
    }
    return {};
}

}  // namespace

int InitCommand(const std::string& dir, const std::string& scenario, bool packages) {
    CardsPlan plan;
    std::string error = scenario.empty()
                            ? ParseScenario(kDefaultScenario, "default-scenario.toml", plan)
                            : ReadScenario(scenario, plan);
    if (error.empty()) error = LayOut(plan, dir, packages);
    return error.empty() ? 0 : Fail(error);
}

int StatusCommand(const std::string& dir) {
    CardsState state;
    if (std::string error = LoadState(dir, state); !error.empty()) return Fail(error);
    for (const BoardState& board : state.boards)
        if (std::string error = PrintBoard(dir, board); !error.empty()) return Fail(error);
    for (const int node : state.foreignNodes) std::printf("/dev/video%d: another driver's\n", node);
    if (!state.eventNode) std::printf("/dev/qv-event: missing\n");
    return 0;
}

int PowerCycleCommand(const std::string& dir) {
    std::string error;
    const std::shared_ptr<Model> model = Model::Load(dir, error);
    if (!model) return Fail(error);
    model->PowerCycle();
    return 0;
}

int JournalCommand(const std::string& dir) {
    CardsState state;
    if (std::string error = LoadState(dir, state); !error.empty()) return Fail(error);
    std::ifstream journal(JournalPath(dir));
    // No journal: nobody has used the cards yet.
    for (std::string line; std::getline(journal, line);) std::cout << line << '\n';
    return 0;
}

}  // namespace qvsim
