// Bytes at addresses, in a file or in memory; addresses after the last byte ever written read as a
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

    // Without a file the bytes are in memory. A missing file is created at the first write; with
    // `readOnly` it stays missing. Returns an error message, empty on success.
    std::string Open(const std::string& path, bool readOnly);

    size_t Length() const;
    bool Read(uint8_t* data, size_t size, size_t offset) const;
    // A gap before `offset` is filled. When the disk is full, returns false with errno, and nothing
    // is lost.
    bool Write(const uint8_t* data, size_t size, size_t offset);
    // Drops everything after it.
    bool Cut(size_t length);

  private:
    bool FillTo(size_t offset);

    uint8_t m_filler;
    int m_fd = -1;
    bool m_missing = false;  // no file, and none will be created
    std::vector<uint8_t> m_memory;
};

}  // namespace qvsim
