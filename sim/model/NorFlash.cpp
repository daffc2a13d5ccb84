// Erasing and programming a chip, and the marks beside its bytes. Knows nothing of firmware.
#include "NorFlash.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace qvsim {
namespace {

// The file of marks begins with this, the boot address as 4 bytes, and 4 that are 0.
constexpr uint8_t kMarksHead[8] = {'q', 'v', 'm', 'a', 'r', 'k', '1', '\n'};
constexpr size_t kBootAt = sizeof kMarksHead;
constexpr size_t kBitsAt = 16;

bool AllBlank(const uint8_t* data, size_t size) {
    return std::all_of(data, data + size, [](uint8_t byte) { return byte == 0xFF; });
}

}  // namespace

std::string NorFlash::Open(const std::string& path, uint32_t size, bool readOnly) {
    // Sizes stay below 2 GiB, so that a 32-bit off_t reaches every byte.
    if (size == 0 || size > 0x7FFFF000u || size % kSector != 0)
        return path + ": flash size " + std::to_string(size) + " is not a multiple of 4096";
    m_size = size;
    const std::string marks = path + ".marks";
    if (std::string error = m_cells.Open(path, readOnly); !error.empty()) return error;
    if (std::string error = m_marks.Open(marks, readOnly); !error.empty()) return error;
    if (m_cells.Length() > size)
        return path + ": is larger than the chip, which has " + std::to_string(size) + " bytes";
    uint8_t head[sizeof kMarksHead];
    if (!m_marks.Read(head, sizeof head, 0)) return marks + ": cannot be read";
    if (m_marks.Length() > 0 && std::memcmp(head, kMarksHead, sizeof head) != 0)
        return marks + ": is no file of marks; `qvcap-sim flash write` makes it again";
    return {};
}

bool NorFlash::WriteSector(const uint8_t (&bytes)[kSector], uint32_t at) {
    // The blank end is not stored: the file of a mostly empty flash stays small.
    if (at + kSector >= m_cells.Length() && AllBlank(bytes, kSector)) return m_cells.Cut(at);
    return m_cells.Write(bytes, kSector, at);
}

bool NorFlash::Erase(uint32_t offset, uint32_t size) {
    if (!InRange(offset, size)) return false;
    if (size == 0) return true;
    const uint32_t begin = offset / kSector * kSector;
    const uint32_t end = (offset + size - 1) / kSector * kSector + kSector;
    // The marks first: a crash in between must not leave an erased image looking complete.
    if (!Mark(begin, end - begin, false)) return false;
    uint8_t blank[kSector];
    std::memset(blank, 0xFF, sizeof blank);
    // From the end, so that the file gets shorter step by step.
    for (uint32_t at = end; at > begin; at -= kSector)
        if (at - kSector < m_cells.Length() && !WriteSector(blank, at - kSector)) return false;
    return true;
}

bool NorFlash::Program(uint32_t offset, const uint8_t* data, uint32_t size, uint8_t stuck) {
    if (!InRange(offset, size) || !Mark(offset, size, false)) return false;
    uint8_t cells[kSector];
    for (uint32_t done = 0; done < size;) {
        const uint32_t at = offset + done;
        const uint32_t n = std::min(size - done, kSector - at % kSector);
        if (!m_cells.Read(cells, n, at)) return false;
        bool exact = true;
        for (uint32_t i = 0; i < n; ++i) {
            cells[i] = static_cast<uint8_t>(cells[i] & (data[done + i] | stuck));
            exact = exact && cells[i] == data[done + i];
        }
        if (!m_cells.Write(cells, n, at) || (exact && !Mark(at, n, true))) return false;
        done += n;
    }
    return true;
}

bool NorFlash::Read(uint32_t offset, uint8_t* data, uint32_t size) const {
    return InRange(offset, size) && m_cells.Read(data, size, offset);
}

bool NorFlash::Garble(uint32_t offset) {
    if (!InRange(offset, 1)) return false;
    const uint32_t begin = offset / kSector * kSector;
    if (!Mark(begin, kSector, false)) return false;
    uint8_t sector[kSector];
    uint32_t value = begin | 1;
    for (uint8_t& byte : sector) {
        value = value * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(~(value >> 24));
    }
    return WriteSector(sector, begin);
}

bool NorFlash::Blank(uint32_t offset, uint32_t size) const {
    if (!InRange(offset, size)) return false;
    uint8_t cells[kSector];
    for (uint32_t done = 0; done < size;) {
        const uint32_t n = std::min(size - done, kSector);
        if (!m_cells.Read(cells, n, offset + done) || !AllBlank(cells, n)) return false;
        done += n;
    }
    return true;
}

bool NorFlash::Programmed(uint32_t offset, uint32_t size) const {
    if (!InRange(offset, size)) return false;
    if (size == 0) return true;
    const uint32_t first = offset / 8;
    std::vector<uint8_t> bits((offset + size - 1) / 8 - first + 1);
    if (!m_marks.Read(bits.data(), bits.size(), kBitsAt + first)) return false;
    // The bits of the first and last byte that are outside the range count as set.
    bits.front() = static_cast<uint8_t>(bits.front() | ((1u << offset % 8) - 1));
    if (const uint32_t end = (offset + size) % 8; end != 0)
        bits.back() = static_cast<uint8_t>(bits.back() | 0xFFu << end);
    return AllBlank(bits.data(), bits.size());
}

bool NorFlash::Mark(uint32_t offset, uint32_t size, bool programmed) {
    if (!InRange(offset, size)) return false;
    if (size == 0) return true;
    const uint32_t first = offset / 8;
    const size_t at = kBitsAt + first;
    // Bytes that were never marked need no clearing.
    if (!programmed && m_marks.Length() <= at) return true;
    std::vector<uint8_t> bits((offset + size - 1) / 8 - first + 1);
    if (!m_marks.Read(bits.data(), bits.size(), at)) return false;
    for (uint32_t bit = offset; bit < offset + size;) {
        uint8_t& byte = bits[bit / 8 - first];
        const bool whole = bit % 8 == 0 && offset + size - bit >= 8;
        const auto mask = static_cast<uint8_t>(whole ? 0xFF : 1u << bit % 8);
        byte = static_cast<uint8_t>(programmed ? byte | mask : byte & ~mask);
        bit += whole ? 8 : 1;
    }
    if (m_marks.Length() == 0 && !SetBootAddress(0)) return false;
    return m_marks.Write(bits.data(), bits.size(), at);
}

uint32_t NorFlash::BootAddress() const {
    uint8_t bytes[4];
    if (!m_marks.Read(bytes, sizeof bytes, kBootAt)) return 0;
    return static_cast<uint32_t>(bytes[0] | bytes[1] << 8 | bytes[2] << 16) |
           static_cast<uint32_t>(bytes[3]) << 24;
}

bool NorFlash::SetBootAddress(uint32_t address) {
    uint8_t head[kBitsAt] = {};
    std::copy(std::begin(kMarksHead), std::end(kMarksHead), head);
    for (size_t i = 0; i < 4; ++i) head[kBootAt + i] = static_cast<uint8_t>(address >> (8 * i));
    return m_marks.Write(head, sizeof head, 0);
}

}  // namespace qvsim
