// The kernel's side of the conversation with an emulated device: builds messages byte by byte and
// takes answers apart, with code of its own.
#pragma once

#include <cstdint>
#include <vector>

namespace usbtest {

using Bytes = std::vector<uint8_t>;

inline void Put(Bytes& out, std::initializer_list<uint32_t> words) {
    for (const uint32_t word : words)
        for (int shift = 24; shift >= 0; shift -= 8)
            out.push_back(static_cast<uint8_t>(word >> shift));
}

inline uint32_t Word(const Bytes& bytes, size_t at) {
    return uint32_t{bytes.at(at)} << 24 | uint32_t{bytes.at(at + 1)} << 16 |
           uint32_t{bytes.at(at + 2)} << 8 | bytes.at(at + 3);
}

struct Transfer {
    uint32_t sequence = 1;
    uint32_t in = 1;
    uint32_t endpoint = 0;
    uint32_t length = 0;
    Bytes setup = Bytes(8, 0);
    Bytes data{};
    std::vector<std::pair<uint32_t, uint32_t>> packets{};  // offset, length
    uint32_t packetCount = 0xFFFFFFFF;                     // as many as there are
};

inline Bytes Submit(const Transfer& transfer) {
    Bytes out;
    const uint32_t count = transfer.packetCount == 0xFFFFFFFF
                               ? static_cast<uint32_t>(transfer.packets.size())
                               : transfer.packetCount;
    Put(out, {1, transfer.sequence, 1, transfer.in, transfer.endpoint});
    Put(out, {0, transfer.length, 0, count, 8});
    out.insert(out.end(), transfer.setup.begin(), transfer.setup.end());
    out.insert(out.end(), transfer.data.begin(), transfer.data.end());
    for (const auto& [offset, length] : transfer.packets) Put(out, {offset, length, 0, 0});
    return out;
}

inline Bytes Unlink(uint32_t sequence, uint32_t victim) {
    Bytes out;
    Put(out, {2, sequence, 1, 0, 0, victim, 0, 0, 0, 0, 0, 0});
    return out;
}

struct Answer {
    uint32_t command = 0;
    uint32_t sequence = 0;
    int status = 0;
    uint32_t actual = 0;
    uint32_t packets = 0;
    Bytes data;
    std::vector<uint32_t> lengths;
};

// Takes the first answer off; of a transfer with this direction.
inline Answer Take(Bytes& bytes, bool in = true) {
    Answer answer;
    answer.command = Word(bytes, 0);
    answer.sequence = Word(bytes, 4);
    answer.status = static_cast<int>(Word(bytes, 20));
    size_t used = 48;
    if (answer.command == 3) {
        answer.actual = Word(bytes, 24);
        answer.packets = Word(bytes, 32);
        if (in) {
            const auto from = bytes.begin() + 48;
            answer.data.assign(from, from + answer.actual);
            used += answer.actual;
        }
        for (uint32_t i = 0; i < answer.packets; ++i, used += 16)
            answer.lengths.push_back(Word(bytes, used + 8));
    }
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(used));
    return answer;
}

inline Bytes ControlSetup(int type, int request, int value, int index, int length) {
    Bytes out{static_cast<uint8_t>(type), static_cast<uint8_t>(request)};
    for (const int half : {value, index, length}) {
        out.push_back(static_cast<uint8_t>(half));
        out.push_back(static_cast<uint8_t>(half >> 8));
    }
    return out;
}

}  // namespace usbtest
