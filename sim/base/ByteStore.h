// Bytes at addresses, in a file or in memory; what follows the last one ever written reads as a
// filler. Not locked: the folder's lock covers writing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvsim {

class ByteStore {
  public:
    explicit ByteStore(uint8_t filler) : m_filler(filler) {}
    ByteStore(const ByteStore&) = delete;
    ByteStore& operator=(const ByteStore&) = delete;
    ~ByteStore();

    // Without a file the bytes are in memory. A missing one is made when first written to; with
    // `readOnly` it stays missing. Returns an error message, empty on success.
    std::string Open(const std::string& path, bool readOnly);

    size_t Length() const;
    bool Read(uint8_t* data, size_t size, size_t offset) const;
    // A gap before `offset` is filled. Nothing is lost when a disk is full: false, and errno.
    bool Write(const uint8_t* data, size_t size, size_t offset);
    // Forgets what follows.
    bool Cut(size_t length);

  private:
    bool FillTo(size_t offset);

    uint8_t m_filler;
    int m_fd = -1;
    bool m_missing = false;  // no file, and none is to be made
    std::vector<uint8_t> m_memory;
};

}  // namespace qvsim
