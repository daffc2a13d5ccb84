// Helpers of the targets: input as a file, a check that also works with NDEBUG, a working folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace qvfuzz {

inline void Check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

// Replaces the contents of an open file with the bytes.
void Overwrite(int file, const uint8_t* data, size_t size);

// A regular file in memory that holds the bytes; its path stays the same.
const std::string& AsFile(const uint8_t* data, size_t size);

// An empty folder of this process, made on first use and removed at its end. It is in
// TEST_TMPDIR, by default in memory.
const std::string& Folder();

// Takes bytes from the front; zeros when there are no more.
class Taker {
  public:
    Taker(const uint8_t* data, size_t size) : m_data(data), m_left(size) {}
    size_t Left() const { return m_left; }
    const uint8_t* Rest() const { return m_data; }
    uint8_t Byte() {
        uint8_t byte = 0;
        Fill(&byte, 1);
        return byte;
    }
    void Fill(void* out, size_t size) {
        auto* bytes = static_cast<uint8_t*>(out);
        for (size_t i = 0; i < size; ++i) {
            bytes[i] = m_left > 0 ? *m_data++ : uint8_t{0};
            m_left -= m_left > 0;
        }
    }

  private:
    const uint8_t* m_data;
    size_t m_left;
};

}  // namespace qvfuzz
