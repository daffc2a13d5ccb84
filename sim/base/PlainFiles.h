// Files of a folder of cards. All return false, or a descriptor below 0, and leave errno. Any
// thread.
#pragma once

#include <cstddef>
#include <string>

namespace qvsim {

// open(2) with a number far above those that a program gets: the simulation's own files must not
// take a number that the program would get, such as a closed 0.
int OpenOutOfTheWay(const std::string& path, int flags);
// The same for a descriptor that is already open; takes ownership of `fd`, which may be -1.
int OutOfTheWay(int fd);
// Closes a descriptor from one of these two functions.
int CloseOwn(int fd);
// Whether it is such a descriptor and open: a program that closes every possible descriptor never
// owned this one.
bool IsOwn(int fd);

bool WriteAll(int fd, const void* data, size_t size);

// The whole file; empty when there is none.
std::string ReadText(const std::string& path);

// Appends to a file, which is created if it is missing: all of the text or nothing.
bool AppendText(const std::string& path, const std::string& text);

// Writes the whole text to a temporary file beside `path` and renames it into place.
bool ReplaceFile(const std::string& path, const std::string& text);

}  // namespace qvsim
