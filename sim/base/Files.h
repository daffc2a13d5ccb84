// Files of a folder of cards. All return false, or a descriptor below 0, and leave errno. Any
// thread.
#pragma once

#include <cstddef>
#include <string>

namespace qvsim {

// open(2) with a number far above those that a program gets: the simulation's own files must not
// take a number that the program under it would have been given, such as a closed 0.
int OpenOutOfTheWay(const std::string& path, int flags);
// The same for a descriptor that is open already; takes `fd`, which may be -1.
int OutOfTheWay(int fd);
// Closes a descriptor of one of these two.
int CloseOwn(int fd);
// It is one of these, and is open: a program that closes all descriptors it can think of has never
// had this one.
bool IsOwn(int fd);

bool WriteAll(int fd, const void* data, size_t size);

// The whole file; empty when there is none.
std::string ReadText(const std::string& path);

// Adds to the end of a file, which is made when there is none: all of the text or nothing of it.
bool AppendText(const std::string& path, const std::string& text);

// Writes the whole text to a temporary file beside `path` and renames it into place.
bool ReplaceFile(const std::string& path, const std::string& text);

}  // namespace qvsim
