// The library's instance as an object, and standard streams that no node can take the place of. The
// cards are in Cards.cpp.
#include "Library.h"

#include <fcntl.h>
#include <unistd.h>

#include "QVCapture.h"
#include "StallWatch.h"

namespace qvo {

void OccupyStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) != -1) continue;
        int fd = open("/dev/null", O_RDWR);
        if (fd < 0) fd = open("/", O_PATH);  // refuses every read and write, but keeps the number
        if (fd < 0 || fd == stream) continue;
        dup2(fd, stream);
        close(fd);
    }
}

Library::Library() {
    const StallWatch watch(kPatience, TellOnErrors("listing the cards"));
    QVCaptureInitInstance();
}

Library::~Library() { QVCaptureExitInstance(); }

}  // namespace qvo
