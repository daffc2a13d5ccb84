// The cards of this computer, one entry for each flash, each queried separately: a card that does
// not answer is an entry with the reason, and hides no other. Only queries and reads: nothing here
// can erase or write. One thread; a Library must exist.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "QVCapture.h"

namespace qvo {

// A flash and the channels that run from it. Texts come unchanged from the device, cut at their
// first zero byte: escape them before they are shown.
struct Card {
    std::string path;                // of the channel that represents the flash: the first one
    std::vector<std::string> paths;  // of all its channels, including that one
    std::string problem;             // why it did not answer, as a text; empty when it answered

    bool identified = false;  // the fields up to the running version are valid
    int board = 0;
    int channel = 0;
    std::string family;
    std::string product;
    std::string serial;
    uint16_t productCode = 0;
    uint8_t hardwareVersion = 0;
    uint32_t runningVersion = 0;  // major in the high, minor in the low 16 bits

    uint32_t firmwareOffset = 0;  // flash address of the main header; valid without a problem

    // "00:01", or the path when the card is not identified.
    std::string Name() const;
};

// The text in a field of a device's record, which may fill it without a zero byte.
template <size_t kSize>
std::string FieldText(const char (&field)[kSize]) {
    return std::string(field, strnlen(field, kSize));
}

// Distance from the main image's header to the safe image's, bytes.
inline constexpr uint32_t kSafeHeaderDistance = 4096;
// Bytes of one read request at most.
inline constexpr uint32_t kReadChunk = 65536;

// Every card of the library's list, in its order. The channels of a Lumo board share one flash and
// are one entry. Queries identity and flash layout of each, and closes it again. Nodes that should
// be channels but did not answer the library are entries, too.
std::vector<Card> FindCards();

// Asks the card's node which card is there now: empty when it is still this one, otherwise why not,
// as a text.
std::string WhyNotThere(const Card& card);

// A card that is open for reading.
class CardReader {
  public:
    explicit CardReader(const Card& card);
    ~CardReader();
    CardReader(const CardReader&) = delete;
    CardReader& operator=(const CardReader&) = delete;

    // One request, `size` at most kReadChunk. False with Problem() set when it was refused or
    // delivered too few bytes.
    bool Read(uint32_t address, uint8_t* buffer, uint32_t size);
    // Why the last call failed, as a text that names the request; empty when none has failed.
    const std::string& Problem() const { return m_problem; }

  private:
    std::string m_path;
    QV_CHANNEL m_channel;
    std::string m_problem;
};

}  // namespace qvo
