// `qvcap-sim flash`: copies the bytes of a card's flash out of the folder and into it.
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "Commands.h"
#include "FirmwareImage.h"
#include "Folder.h"
#include "Model.h"

namespace qvsim {
namespace {

struct Place {
    const BoardState* board = nullptr;
    int channel = 0;
};

bool ToNumber(const std::string& text, int& number) {
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && last == end && number >= 0;
}

std::string Find(const CardsState& state, const std::string& text, Place& place) {
    const size_t colon = text.find(':');
    int index = 0;
    if (!ToNumber(text.substr(0, colon), index) ||
        (colon != std::string::npos && !ToNumber(text.substr(colon + 1), place.channel)))
        return "flash: '" + text + "' is not BOARD or BOARD:CHANNEL, two numbers as status shows";
    for (const BoardState& board : state.boards)
        if (board.index == index) place.board = &board;
    if (!place.board) return "flash: there is no board " + std::to_string(index);
    if (place.channel >= static_cast<int>(place.board->channels.size()))
        return "flash: board " + std::to_string(index) + " has no channel " +
               std::to_string(place.channel);
    return {};
}

std::string Path(const std::string& dir, const Place& place) {
    return dir + "/" + FlashFileName(*place.board, place.channel);
}

std::string ReadTo(const NorFlash& flash, const std::string& file) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    uint8_t sector[NorFlash::kSector];
    for (uint32_t at = 0; at < flash.Size() && out; at += NorFlash::kSector) {
        if (!flash.Read(at, sector, sizeof sector)) return "flash: the chip cannot be read";
        out.write(reinterpret_cast<const char*>(sector), sizeof sector);
    }
    out.close();
    return out ? std::string() : file + ": cannot be written: " + std::strerror(errno);
}

// The bytes of a file, which must not be larger than the chip.
std::string ReadFrom(const std::string& file, uint32_t size, std::vector<uint8_t>& bytes) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return file + ": " + std::strerror(errno);
    bytes.resize(size_t{size} + 1);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (in.bad()) return file + ": cannot be read";
    bytes.resize(static_cast<size_t>(in.gcount()));
    if (bytes.size() > size)
        return file + ": is larger than the chip, which has " + std::to_string(size) + " bytes";
    return {};
}

}  // namespace

int FlashReadCommand(const std::string& dir, const std::string& place, const std::string& file) {
    CardsState state;
    if (std::string error = LoadState(dir, state); !error.empty()) return Fail(error);
    Place found;
    if (std::string error = Find(state, place, found); !error.empty()) return Fail(error);
    NorFlash flash;
    std::string error = flash.Open(Path(dir, found), found.board->flashSize, true);
    if (error.empty()) error = ReadTo(flash, file);
    return error.empty() ? 0 : Fail(error);
}

int FlashWriteCommand(const std::string& dir, const std::string& place, const std::string& file) {
    std::unique_ptr<Folder> folder;
    std::string error = Folder::Open(dir, folder);
    if (!error.empty()) return Fail(error);
    const Folder::Lock lock(folder.get());
    CardsState state;
    if (error = LoadState(dir, state); !error.empty()) return Fail(error);
    Place found;
    if (error = Find(state, place, found); !error.empty()) return Fail(error);
    std::vector<uint8_t> bytes;
    if (error = ReadFrom(file, found.board->flashSize, bytes); !error.empty()) return Fail(error);
    // The marks are always made again: they may be what is damaged.
    const std::string path = Path(dir, found);
    if (truncate((path + ".marks").c_str(), 0) != 0 && errno != ENOENT)
        return Fail(path + ".marks: " + std::strerror(errno));
    NorFlash flash;
    if (error = flash.Open(path, found.board->flashSize); !error.empty()) return Fail(error);
    const ChannelState& channel = found.board->channels[static_cast<size_t>(found.channel)];
    if (!LoadDump(flash, channel.storage.firmwareOffset, bytes))
        return Fail(path + ": cannot be written: " + std::strerror(errno));
    return 0;
}

}  // namespace qvsim
