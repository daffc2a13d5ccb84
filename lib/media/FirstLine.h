// Reads the first line of a small file of the kernel, in /sys or /proc.
//
// Not for files of users. No state, any thread.
#pragma once

#include <cstddef>

namespace qv {

// The line without its newline, cut at size - 1 bytes and always terminated; empty when the file
// cannot be read.
void ReadFirstLine(const char* path, char* line, size_t size);

}  // namespace qv
