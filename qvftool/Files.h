// How qvftool reads files: only regular ones, and without waiting for others. Failures are Mistakes
// that name the file. One thread per object.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "Package.h"

namespace qvf {

// Throws the Mistake "PATH: WHAT: REASON", with errno's reason.
[[noreturn]] void FailWithErrno(const std::string& path, const char* what);

// A regular file that knows how many bytes are left.
class InputFile {
  public:
    explicit InputFile(const std::string& path);
    uint64_t Left() const { return m_left; }
    // The next bytes; fewer only at the end of the file.
    Bytes Take(uint64_t size);
    void Skip(uint64_t size);

  private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::string m_path;
    std::unique_ptr<std::FILE, Close> m_file;
    uint64_t m_left = 0;
};

Bytes ReadFile(const std::string& path);

}  // namespace qvf
