#include "StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

void Occupy(int stream) {
    if (fcntl(stream, F_GETFD) != -1) return;
    int fd = open("/dev/null", O_RDWR);
    if (fd < 0) fd = open("/", O_PATH);  // refuses every read and write, but keeps the number
    if (fd < 0 || fd == stream) return;
    dup2(fd, stream);
    close(fd);
}

}  // namespace

void OccupyOutputStreams() {
    Occupy(STDOUT_FILENO);
    Occupy(STDERR_FILENO);
}

void OccupyInputStream() { Occupy(STDIN_FILENO); }
