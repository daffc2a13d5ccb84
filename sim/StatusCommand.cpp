// `qvcap-sim status`: reads the folder and changes nothing.
#include <cstdio>
#include <cstring>

#include "Commands.h"
#include "FirmwareImage.h"
#include "Json.h"
#include "Model.h"

namespace qvsim {
namespace {

std::string VersionText(uint32_t version) {
    return std::to_string(version >> 16) + "." + std::to_string(version & 0xFFFF);
}

// A text of a record, which may lack a terminator.
template <size_t size>
std::string TextOf(const char (&field)[size]) {
    return std::string(field, strnlen(field, size));
}

struct Image {
    StoredHeader header;
    uint32_t address = 0;
    bool complete = false;
};

struct ChannelStatus {
    const ChannelState* state = nullptr;
    std::string flash;  // name of the file
    Image main;
    Image safe;
};

Image LookAt(const NorFlash& flash, uint32_t address, bool safe) {
    return {ReadHeader(flash, address), address, ImageComplete(flash, address, safe)};
}

std::string LookAt(const std::string& dir, const BoardState& board,
                   std::vector<ChannelStatus>& channels) {
    for (size_t i = 0; i < board.channels.size(); ++i) {
        ChannelStatus status;
        status.state = &board.channels[i];
        status.flash = FlashFileName(board, static_cast<int>(i));
        NorFlash flash;
        const std::string error = flash.Open(dir + "/" + status.flash, board.flashSize, true);
        if (!error.empty()) return error;
        const uint32_t main = status.state->storage.firmwareOffset;
        status.main = LookAt(flash, main, false);
        status.safe = LookAt(flash, main + kSafeHeaderDistance, true);
        channels.push_back(status);
    }
    return {};
}

std::string Text(const Image& image) {
    if (!image.header.valid) return "none";
    return VersionText(image.header.version) + " code " +
           std::to_string(image.header.compatibilityCode) +
           (image.complete ? " complete" : " incomplete");
}

std::string Json(const Image& image) {
    if (!image.header.valid) return "null";
    return "{\"version\":" + JsonText(VersionText(image.header.version)) +
           ",\"compatibility_code\":" + std::to_string(image.header.compatibilityCode) +
           ",\"address\":" + std::to_string(image.address) +
           ",\"complete\":" + JsonFlag(image.complete) + "}";
}

void PrintText(const BoardState& board, const std::vector<ChannelStatus>& channels) {
    const _QVCAP_CHANNEL_INFO& info = board.channels[0].info;
    std::printf("board %d: %s, %s, serial %s, hardware %c, %s\n", board.index,
                TextOf(info.familyName).c_str(), TextOf(info.productName).c_str(),
                TextOf(info.boardSerialNumber).c_str(), info.hardwareVersion,
                board.powerLost ? "power lost" : "powered");
    int number = 0;
    for (const ChannelStatus& channel : channels)
        std::printf("  /dev/video%d channel %d: running %s, stored %s, safe %s, %s%s\n",
                    channel.state->node, number++,
                    VersionText(channel.state->info.firmwareVersion).c_str(),
                    Text(channel.main).c_str(), Text(channel.safe).c_str(), channel.flash.c_str(),
                    channel.state->gone ? ", vanished" : "");
}

std::string Json(const BoardState& board, const std::vector<ChannelStatus>& channels) {
    const _QVCAP_CHANNEL_INFO& info = board.channels[0].info;
    std::string out = "{\"index\":" + std::to_string(board.index) +
                      ",\"family\":" + JsonText(TextOf(info.familyName)) +
                      ",\"product\":" + JsonText(TextOf(info.productName)) +
                      ",\"serial\":" + JsonText(TextOf(info.boardSerialNumber)) +
                      ",\"hardware\":" + JsonText(std::string(1, info.hardwareVersion)) +
                      ",\"powered\":" + JsonFlag(!board.powerLost) + ",\"channels\":[";
    int number = 0;
    for (const ChannelStatus& channel : channels) {
        if (number > 0) out += ",";
        out += "{\"channel\":" + std::to_string(number++) +
               ",\"node\":" + JsonText("/dev/video" + std::to_string(channel.state->node)) +
               ",\"present\":" + JsonFlag(!channel.state->gone) +
               ",\"running\":" + JsonText(VersionText(channel.state->info.firmwareVersion)) +
               ",\"flash\":" + JsonText(channel.flash) + ",\"main\":" + Json(channel.main) +
               ",\"safe\":" + Json(channel.safe) + "}";
    }
    return out + "]}";
}

}  // namespace

int StatusCommand(const std::string& dir, bool json) {
    CardsState state;
    if (std::string error = LoadState(dir, state); !error.empty()) return Fail(error);
    const bool events = state.eventNode && !state.eventNodeGone;
    std::string boards;
    for (const BoardState& board : state.boards) {
        std::vector<ChannelStatus> channels;
        if (std::string error = LookAt(dir, board, channels); !error.empty()) return Fail(error);
        if (json)
            boards += (boards.empty() ? "" : ",") + Json(board, channels);
        else
            PrintText(board, channels);
    }
    if (!json) {
        for (const int node : state.foreignNodes)
            std::printf("/dev/video%d: another driver's\n", node);
        if (!events) std::printf("/dev/qv-event: missing\n");
        return 0;
    }
    std::string others;
    for (const int node : state.foreignNodes)
        others += (others.empty() ? "" : ",") + JsonText("/dev/video" + std::to_string(node));
    std::printf("{\"boards\":[%s],\"other_nodes\":[%s],\"event_node\":%s}\n", boards.c_str(),
                others.c_str(), JsonFlag(events));
    return 0;
}

}  // namespace qvsim
