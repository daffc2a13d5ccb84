// One NOR flash chip, kept in a sparse file, or in memory for as long as the object lives.
//
// The file holds every byte complemented, so that a hole, which reads as 0, is erased flash (0xFF).
// An erase clears whole 4 KiB sectors: every sector that the range touches. Programming only clears
// bits. Beside the bytes the chip remembers which ranges hold exactly what was last programmed into
// them: that is how a card knows a complete image from one whose writing was cut. A
// chip with a file is never held in memory. Not locked: the model's lock covers it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qvsim {

class NorFlash {
  public:
    static constexpr uint32_t kSector = 4096;
    static constexpr uint32_t kPage = 256;

    NorFlash() = default;
    // A blank chip in memory; whole sectors.
    explicit NorFlash(uint32_t size);
    NorFlash(const NorFlash&) = delete;
    NorFlash& operator=(const NorFlash&) = delete;
    ~NorFlash();

    // Opens or creates the files; an empty text or what went wrong.
    std::string Open(const std::string& path, uint32_t size);

    // Another process may have written: looks at its map again.
    void Reload() { LoadMap(); }

    uint32_t Size() const { return size_; }
    bool InRange(uint32_t offset, uint32_t size) const {
        return offset <= size_ && size <= size_ - offset;
    }

    // All are false when the range lies outside the chip or the file cannot be read or written.
    bool Erase(uint32_t offset, uint32_t size);
    // Bits of `stuck` stay as they are in every byte.
    bool Program(uint32_t offset, const uint8_t* data, uint32_t size, uint8_t stuck = 0) {
        return ProgramPiece(offset, data, size, stuck) && SaveMap();
    }
    // The same for a request that comes in pieces, with SaveMap() behind the last: the map is a
    // file that is replaced whole each time.
    bool ProgramPiece(uint32_t offset, const uint8_t* data, uint32_t size, uint8_t stuck);
    bool SaveMap();
    bool Read(uint32_t offset, uint8_t* data, uint32_t size) const;

    // Leaves the sector at `offset` with arbitrary but always the same bytes, as a power cut in the
    // middle of an erase or program cycle does.
    bool Garble(uint32_t offset);

    // True when every byte of the range was programmed since its erase and reads back as asked.
    bool Programmed(uint32_t offset, uint32_t size) const;
    // True when every byte of the range reads 0xFF.
    bool Blank(uint32_t offset, uint32_t size) const;

    // The address at which the last header was programmed; the image to load first.
    uint32_t BootAddress() const { return bootAddress_; }
    bool SetBootAddress(uint32_t address);

  private:
    bool ReadCells(uint8_t* cells, size_t size, uint32_t offset) const;
    bool WriteCells(const uint8_t* cells, size_t size, uint32_t offset);
    void Forget(uint32_t begin, uint32_t end);
    void Remember(uint32_t begin, uint32_t end);
    void LoadMap();

    int fd_ = -1;
    std::vector<uint8_t> memory_;  // empty: in the file
    uint32_t size_ = 0;
    std::string mapPath_;                      // empty: in memory
    std::map<uint32_t, uint32_t> programmed_;  // begin -> end, disjoint, never touching
    uint32_t bootAddress_ = 0;
    bool mapChanged_ = false;  // since it was last saved
};

}  // namespace qvsim
