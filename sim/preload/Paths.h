// Which paths lead to a simulated node, by the rules of the kernel's walk: from any folder, through
// doubled slashes, `..` and links. Any thread inside the door.
#pragma once

#include <string>

namespace qvsim::door {

// The cheap half of the next: false for nearly every path of a program. No locks, no memory.
bool MayBeNode(const char* path);
// "/dev/video0" when the path's last name is one that the cards answer for, in the folder /dev;
// empty when it leads elsewhere. Nothing is said of whether there is such a node.
std::string NodeOfPath(int dir, const char* path);
// The same for a path that ends in a link, through as many as there are.
std::string NodeOfLink(int dir, const char* path);
// What has a node's name in front of a slash is no folder.
bool EndsInSlash(const char* path);
// One of the names that this process's descriptors have, which are links: "/proc/self/fd/3".
bool IsDescriptorName(const char* path);
// The folder is /dev, under whatever name.
bool IsDevFolder(int fd);
bool IsDevFolder(const char* path);

}  // namespace qvsim::door
