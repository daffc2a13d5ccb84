// The cards' NOR flash: erasing fills whole 4096-byte sectors with 0xFF, programming can only clear
// bits.
//
// The file holds the chip's bytes, without the blank rest at the end. A second file holds one mark
// per byte: programmed since its erase, and reads back as requested. The firmware loader uses the
// marks, and they are the same for every process; neither file is kept in memory. A chip in memory
// has no files. Not locked: the model's lock covers it, and the folder's lock covers writing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ByteStore.h"

namespace qvsim {

class NorFlash {
  public:
    static constexpr uint32_t kSector = 4096;
    static constexpr uint32_t kPage = 256;

    NorFlash() = default;
    // A blank chip in memory; whole sectors.
    explicit NorFlash(uint32_t size) : m_size(size) {}
    NorFlash(const NorFlash&) = delete;
    NorFlash& operator=(const NorFlash&) = delete;

    // Opens or creates the files; with `readOnly` a missing one is a blank chip. Returns an
    // error message, empty on success.
    std::string Open(const std::string& path, uint32_t size, bool readOnly = false);

    uint32_t Size() const { return m_size; }
    bool InRange(uint32_t offset, uint32_t size) const {
        return offset <= m_size && size <= m_size - offset;
    }

    // All are false when the range lies outside the chip or the file cannot be read or written.
    bool Erase(uint32_t offset, uint32_t size);
    // Bits of `stuck` do not change in any byte.
    bool Program(uint32_t offset, const uint8_t* data, uint32_t size, uint8_t stuck = 0);
    bool Read(uint32_t offset, uint8_t* data, uint32_t size) const;

    // Leaves the sector at `offset` with arbitrary but always the same bytes, as a power cut in the
    // middle of an erase or program cycle does.
    bool Garble(uint32_t offset);

    // True when every byte of the range was programmed since its erase and reads back as requested.
    bool Programmed(uint32_t offset, uint32_t size) const;
    // True when every byte of the range reads 0xFF.
    bool Blank(uint32_t offset, uint32_t size) const;
    // Marks the range as correctly programmed, or clears the marks.
    bool Mark(uint32_t offset, uint32_t size, bool programmed);

    // The address at which the last header was programmed; the image to load first.
    uint32_t BootAddress() const;
    bool SetBootAddress(uint32_t address);

  private:
    bool WriteSector(const uint8_t (&bytes)[kSector], uint32_t at);

    ByteStore m_cells{0xFF};
    ByteStore m_marks{0};  // a head, and then a bit for each byte
    uint32_t m_size = 0;
};

}  // namespace qvsim
