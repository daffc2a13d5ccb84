// First line of a kernel file; see FirstLine.h.
#include "FirstLine.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace qv {

void ReadFirstLine(const char* path, char* line, size_t size) {
    ssize_t length = 0;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        length = read(fd, line, size - 1);
        close(fd);
    }
    line[length > 0 ? length : 0] = '\0';
    line[strcspn(line, "\n")] = '\0';
}

}  // namespace qv
