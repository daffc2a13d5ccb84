// Runs other programs of the system to their end, bytes in and bytes out. A failure to start one is
// a Mistake. One thread.
#pragma once

#include <string>
#include <vector>

#include "Package.h"

namespace qvf {

// A file without a name, in memory, for a program that needs a file.
class MemoryFile {
  public:
    MemoryFile();  // empty
    explicit MemoryFile(const Bytes& bytes);
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void Append(std::span<const uint8_t> bytes);
    // It is read from its begin, whatever was appended.
    int Descriptor() const { return m_fd; }
    std::string Path() const;  // for a program that this one starts

  private:
    int m_fd;
};

struct ProgramRun {
    int status = -1;  // exit status; -1 when a signal ended it
    Bytes output;
    std::string errors;
};

// `arguments` begins with the program, which is searched on PATH; `package` is the Debian package
// that contains it, for the message when it is missing.
ProgramRun RunProgram(const std::vector<std::string>& arguments, const MemoryFile& input,
                      const std::string& package);

}  // namespace qvf
