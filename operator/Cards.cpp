// Finds the cards through the library and reads their flash. What the flash means is decided in
// Judge.cpp.
#include "Cards.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <tuple>

#include "Nodes.h"
#include "Package.h"
#include "StallWatch.h"

namespace qvo {
namespace {

constexpr char kLumo[] = "Lumo Capture";
constexpr size_t kLibraryPathSize = 512;

// The driver's reason, if it gave one.
std::string Because(const std::string& what, int error) {
    return error == 0 ? what + ": no reason was given" : what + ": " + std::strerror(error);
}

void TakeIdentity(const _QVCAP_CHANNEL_INFO& info, Card& card) {
    card.identified = true;
    card.board = info.boardIndex;
    card.channel = info.channelIndex;
    card.family = FieldText(info.familyName);
    card.product = FieldText(info.productName);
    card.serial = FieldText(info.boardSerialNumber);
    card.productCode = info.productCode;
    card.hardwareVersion = static_cast<uint8_t>(info.hardwareVersion);
    card.runningVersion = info.firmwareVersion;
}

// Reads from an open channel what may have changed since the list was made, and the flash layout.
std::string Ask(QV_CHANNEL channel, Card& card) {
    _QVCAP_CHANNEL_INFO info = {};
    errno = 0;
    if (QVGetChannelInfo(channel, &info) != QV_RESULT_OK)
        return Because("the identity cannot be asked", errno);
    TakeIdentity(info, card);
    _QVCAP_FIRMWARE_STORAGE storage = {};
    errno = 0;
    if (QVGetFirmwareStorageInfo(channel, &storage) != QV_RESULT_OK)
        return Because("the flash layout cannot be asked", errno);
    card.firmwareOffset = storage.firmwareOffset;
    return "";
}

std::string OpenAndAsk(Card& card) {
    errno = 0;
    QV_CHANNEL channel = QVOpenChannelByPath(card.path.c_str());
    if (channel == nullptr) return Because("cannot be opened", errno);
    std::string problem = Ask(channel, card);
    QVCloseChannel(channel);
    return problem;
}

// The entry of the board whose flash this channel shares.
Card* SharedFlash(std::vector<Card>& cards, const Card& channel) {
    if (channel.family != kLumo) return nullptr;
    const auto shares = [&](const Card& card) {
        return card.family == kLumo && card.serial == channel.serial && card.board == channel.board;
    };
    const auto found = std::find_if(cards.begin(), cards.end(), shares);
    return found == cards.end() ? nullptr : &*found;
}

void AddListed(int index, std::vector<Card>& cards) {
    _QVCAP_CHANNEL_INFO info = {};
    char path[kLibraryPathSize] = {};
    if (QVGetChannelInfoByIndex(index, &info) != QV_RESULT_OK ||
        QVGetDevicePath(index, path) != QV_RESULT_OK)
        return;
    Card card;
    TakeIdentity(info, card);
    card.path = path;
    card.paths = {card.path};
    if (Card* shared = SharedFlash(cards, card)) {
        shared->paths.push_back(card.path);
        return;
    }
    card.problem = OpenAndAsk(card);
    cards.push_back(std::move(card));
}

bool IsListed(const std::vector<Card>& cards, const std::string& path) {
    return std::any_of(cards.begin(), cards.end(), [&](const Card& card) {
        return std::find(card.paths.begin(), card.paths.end(), path) != card.paths.end();
    });
}

// A node that should be a channel but that the library does not list.
void AddUnlisted(const std::string& path, std::vector<Card>& cards) {
    const NodeAnswers answers = AskNode(path);
    if (!answers.IsChannel() && !answers.ShouldBeChannel()) return;
    Card card;
    card.path = path;
    card.paths = {path};
    if (answers.identity) TakeIdentity(*answers.identity, card);
    Card* const shared = answers.identity ? SharedFlash(cards, card) : nullptr;
    if (shared != nullptr) {
        shared->paths.push_back(path);
        return;
    }
    card.problem = answers.Problem();
    if (answers.IsChannel())
        card.problem = QVGetChannelCount() < QV_MAX_CHANNELS
                           ? "did not answer when the channels were listed; run it again"
                           : "is beyond the " + std::to_string(QV_MAX_CHANNELS) +
                                 " channels that the library lists";
    cards.push_back(std::move(card));
}

}  // namespace

std::string Card::Name() const {
    if (!identified) return path;
    char text[16];
    std::snprintf(text, sizeof text, "%02d:%02d", board, channel);
    return text;
}

std::vector<Card> FindCards() {
    StallWatch watch(kPatience, TellOnErrors("asking the cards"));
    std::vector<Card> cards;
    const int count = QVGetChannelCount();
    for (int i = 0; i < count; ++i) {
        watch.Progress();
        AddListed(i, cards);
    }
    for (const std::string& path : VideoNodePaths()) {
        watch.Progress();
        if (IsListed(cards, path)) continue;
        AddUnlisted(path, cards);
    }
    return cards;
}

std::string WhyNotThere(const Card& card) {
    Card there;
    there.path = card.path;
    // Twice: one refused request does not mean another card.
    if (!OpenAndAsk(there).empty()) there.problem = OpenAndAsk(there);
    if (!there.problem.empty()) return there.problem;
    const auto identity = [](const Card& one) {
        return std::tie(one.board, one.channel, one.family, one.serial, one.productCode,
                        one.hardwareVersion);
    };
    if (identity(there) == identity(card)) return "";
    return there.path + " leads to another card now: " + there.Name() + " " + there.product +
           ", serial " + there.serial;
}

CardReader::CardReader(const Card& card) : m_path(card.path) {
    errno = 0;
    m_channel = QVOpenChannelByPath(m_path.c_str());
    if (m_channel == nullptr) m_problem = Because("cannot be opened", errno);
}

CardReader::~CardReader() { QVCloseChannel(m_channel); }

bool CardReader::Read(uint32_t address, uint8_t* buffer, uint32_t size) {
    if (m_channel == nullptr) return false;
    unsigned int read = 0;
    errno = 0;
    const bool good = QVReadFirmwareData(m_channel, address, buffer, size, &read) == QV_RESULT_OK;
    if (good && read == size) return true;
    const int error = errno;
    const std::string what =
        "reading " + std::to_string(size) + " bytes at " + qvf::HexNumber(address, 8);
    m_problem = good ? what + ": only " + std::to_string(read) + " came" : Because(what, error);
    return false;
}

}  // namespace qvo
