// Which paths lead to a simulated node, by the rules of the kernel's path resolution: from any
// folder, through double slashes, `..` and links. Any thread inside the door.
#pragma once

#include <string>

namespace qvsim::door {

// The cheap part of the next function: false for nearly every path of a program. No locks, no
// memory.
bool MayBeNode(const char* path);
// "/dev/video0" when the path's last name is one that the cards answer for, in the folder /dev;
// empty when it leads elsewhere. The node need not exist.
std::string NodeOfPath(int dir, const char* path);
// The same for a path that ends in one or more links.
std::string NodeOfLink(int dir, const char* path);
// A node's name followed by a slash is no folder.
bool EndsInSlash(const char* path);
// Whether the path is a link of one of this process's descriptors: "/proc/self/fd/3".
bool IsDescriptorName(const char* path);
// Whether the folder is /dev, under any name.
bool IsDevFolder(int fd);
bool IsDevFolder(const char* path);

}  // namespace qvsim::door
