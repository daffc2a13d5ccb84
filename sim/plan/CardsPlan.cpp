#include "CardsPlan.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include "FirmwareImage.h"
#include "Folder.h"
#include "Journal.h"
#include "NorFlash.h"
#include "SamplePackages.h"
#include "Settings.h"

namespace qvsim {
namespace {

constexpr int kMaxNode = 9999;

// A text into a field of a record, zero-filled; the caller has checked that it fits.
template <size_t size>
void PutText(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

std::string At(size_t board) { return "board " + std::to_string(board + 1) + ": "; }

std::string CheckBoard(const BoardPlan& board) {
    if (board.family.empty() || board.family.size() > 63) return "family needs 1 to 63 characters";
    if (board.product.size() > 63) return "product name is longer than 63 characters";
    if (board.serial.size() > 15) return "serial is longer than 15 characters";
    if (board.index > 15) return "board index is not 0 to 15";
    if (board.channels < 1 || board.channels > static_cast<int>(kMaxChannelsOnBoard))
        return "a board has 1 to 16 channels";
    if (board.flashSize == 0 || board.flashSize % NorFlash::kSector != 0 ||
        board.flashSize > (1u << 30))
        return "flash size is not a multiple of 4096 up to 1 GiB";
    if (board.firmwareOffset > board.flashSize ||
        board.flashSize - board.firmwareOffset < 2 * kSafeHeaderDistance)
        return "the firmware area lies outside the flash";
    if (board.firstNode + board.channels - 1 > kMaxNode) return "node number above 9999";
    return {};
}

// Gives boards without an index the lowest free one, and boards without nodes the next free nodes.
std::string Number(CardsPlan& plan) {
    std::set<int> indices;
    std::set<int> nodes(plan.foreignNodes.begin(), plan.foreignNodes.end());
    if (nodes.size() != plan.foreignNodes.size()) return "a foreign node is given twice";
    for (const BoardPlan& board : plan.boards)
        if (board.index >= 0 && !indices.insert(board.index).second)
            return "board index " + std::to_string(board.index) + " is given twice";
    int nextNode = 0;
    for (size_t i = 0; i < plan.boards.size(); ++i) {
        BoardPlan& board = plan.boards[i];
        for (int index = 0; board.index < 0; ++index)
            if (indices.insert(index).second) board.index = index;
        if (board.index > 15) return At(i) + "no board index from 0 to 15 is left";
        if (board.firstNode < 0) {
            const auto taken = [&](int first) {
                const auto at = nodes.lower_bound(first);
                return at != nodes.end() && *at < first + board.channels;
            };
            while (taken(nextNode)) ++nextNode;
            board.firstNode = nextNode;
        }
        for (int c = 0; c < board.channels; ++c)
            if (!nodes.insert(board.firstNode + c).second)
                return At(i) + "/dev/video" + std::to_string(board.firstNode + c) +
                       " is given twice";
        nextNode = board.firstNode + board.channels;
    }
    return {};
}

ChannelState MakeChannel(const BoardPlan& board, int index) {
    ChannelState channel;
    channel.node = board.firstNode + index;
    _QVCAP_CHANNEL_INFO& info = channel.info;
    info.productCode = board.productCode;
    info.hardwareVersion = board.hardware;
    info.firmwareVersion = board.firmware;
    PutText(info.familyName, board.family);
    PutText(info.productName, board.product);
    PutText(info.furtherText, "simulated");
    PutText(info.boardSerialNumber, board.serial);
    info.boardIndex = static_cast<uint8_t>(board.index);
    info.channelIndex = static_cast<uint8_t>(index);
    for (size_t i = 0; i < sizeof channel.family.bytes; ++i)
        channel.family.bytes[i] = PatternByte(7, i);
    channel.storage = {board.storageWords[0], board.storageWords[1], board.storageWords[2],
                       board.firmwareOffset};
    channel.video = board.video;
    channel.audio = board.audio;
    channel.signal = board.signal;
    channel.records = board.records;
    if (board.editChannel) board.editChannel(channel);
    return channel;
}

BoardState MakeBoard(const BoardPlan& plan) {
    BoardState board;
    board.index = plan.index;
    board.sharedFlash = plan.family == "Lumo Capture";
    board.flashSize = plan.flashSize;
    board.goldenVersion = plan.golden;
    for (int i = 0; i < plan.channels; ++i) board.channels.push_back(MakeChannel(plan, i));
    return board;
}

int FlashCount(const BoardState& board) {
    return board.sharedFlash ? 1 : static_cast<int>(board.channels.size());
}

// False when the flash cannot be written.
bool LayHeader(const BoardPlan& plan, NorFlash& flash) {
    if (plan.noStoredHeader) return true;
    const StoredPlan stored = plan.stored.value_or(StoredPlan{plan.firmware, 1});
    const std::vector<uint8_t> header =
        MakeHeader(stored.version, stored.compatibilityCode, plan.productCode,
                   static_cast<uint8_t>(plan.hardware));
    return flash.Program(plan.firmwareOffset, header.data(),
                         static_cast<uint32_t>(header.size())) &&
           flash.SetBootAddress(plan.firmwareOffset);
}

// The files and folders that were made; they are removed again unless Keep is called.
class Made {
  public:
    ~Made() {
        // The last one first, so that folders are empty.
        for (; !m_paths.empty(); m_paths.pop_back()) std::remove(m_paths.back().c_str());
    }
    // Call it before the file is made: an existing file belongs to somebody else.
    void Add(const std::string& path) {
        if (access(path.c_str(), F_OK) != 0) m_paths.push_back(path);
    }
    void Keep() { m_paths.clear(); }

  private:
    std::vector<std::string> m_paths;
};

std::string MakeFolder(const std::string& dir, Made& made) {
    made.Add(dir);
    if (mkdir(dir.c_str(), 0777) == 0 || errno == EEXIST) return {};
    return dir + ": " + std::strerror(errno);
}

std::string LayPackages(const CardsPlan& plan, const std::string& dir, Made& made) {
    std::vector<SamplePackage> packages;
    std::string error = MakePackages(plan, packages);
    if (error.empty()) error = MakeFolder(dir, made);
    for (const SamplePackage& package : packages) {
        if (!error.empty()) break;
        const std::string path = dir + "/" + package.name;
        made.Add(path);
        if (!ReplaceFile(path, std::string(package.bytes.begin(), package.bytes.end())))
            error = path + ": cannot be written: " + std::strerror(errno);
    }
    return error;
}

std::string LayFlash(const BoardPlan& plan, const BoardState& board, const std::string& dir,
                     Made& made) {
    for (int c = 0; c < FlashCount(board); ++c) {
        NorFlash flash;
        const std::string path = dir + "/" + FlashFileName(board, c);
        made.Add(path);
        made.Add(path + ".marks");
        if (std::string error = flash.Open(path, plan.flashSize); !error.empty()) return error;
        if (!LayHeader(plan, flash)) return path + ": cannot be written: " + std::strerror(errno);
    }
    return {};
}

CardsState MakeState(const CardsPlan& plan) {
    CardsState state;
    state.eventNode = plan.eventNode;
    state.latencies = plan.latencies;
    state.driver = plan.driver;
    state.journalLimit = plan.journalLimit;
    state.foreignNodes = plan.foreignNodes;
    state.faults = plan.faults;
    state.usbDevices.assign(plan.usbDevices.begin(), plan.usbDevices.end());
    for (const BoardPlan& board : plan.boards) state.boards.push_back(MakeBoard(board));
    return state;
}

}  // namespace

std::string CompletePlan(CardsPlan& plan) {
    for (size_t i = 0; i < plan.boards.size(); ++i)
        if (std::string error = CheckBoard(plan.boards[i]); !error.empty()) return At(i) + error;
    if (std::string error = Number(plan); !error.empty()) return error;
    for (BoardPlan& board : plan.boards) {
        if (board.product.empty()) board.product = board.family.substr(0, 5) + " SIM";
        if (board.serial.empty()) board.serial = "SIM" + std::to_string(board.index);
    }
    return {};
}

std::string LayOut(const CardsPlan& plan, const std::string& dir, bool packages) {
    Made made;
    if (std::string error = MakeFolder(dir, made); !error.empty()) return error;
    if (access(StatePath(dir).c_str(), F_OK) == 0)
        return StatePath(dir) + ": there are cards already; remove the directory first";
    made.Add(dir + "/cards.live");
    if (std::string error = Folder::Make(dir); !error.empty()) return error;
    // Now, and not when the cards are first used: the disk may be full by then.
    made.Add(JournalPath(dir));
    std::unique_ptr<Folder> folder;
    if (std::string error = Folder::Open(dir, folder); !error.empty()) return error;
    if (std::string error = ClearJournal(*folder); !error.empty()) return error;
    const CardsState state = MakeState(plan);
    for (size_t i = 0; i < plan.boards.size(); ++i)
        if (std::string error = LayFlash(plan.boards[i], state.boards[i], dir, made);
            !error.empty())
            return error;
    std::string error;
    if (packages) error = LayPackages(plan, dir + "/packages", made);
    if (error.empty()) error = SaveState(dir, state);  // last: without it there are no cards
    if (error.empty()) made.Keep();
    return error;
}

std::string MakeInMemory(const CardsPlan& plan, std::shared_ptr<Model>& out) {
    std::shared_ptr<Model> model;
    if (std::string error = Model::InMemory(MakeState(plan), model); !error.empty()) return error;
    for (size_t i = 0; i < plan.boards.size(); ++i) {
        const BoardState& board = model->State().boards[i];
        for (int c = 0; c < FlashCount(board); ++c) {
            if (!LayHeader(plan.boards[i], *model->Flash(board.index, c)))
                return std::string("flash in memory: cannot be written: ") + std::strerror(errno);
        }
    }
    out = std::move(model);
    return {};
}

}  // namespace qvsim
