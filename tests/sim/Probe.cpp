// Opens the node named on the command line and prints its descriptor and product name, or why not.
// Run by CommandsTest under the preload door.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "QVDriverRequests.h"

int main(int argc, char** argv) {
    if (argc != 2) return 64;
    const int fd = open(argv[1], O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        std::printf("%s\n", std::strerror(errno));
        return 1;
    }
    _QVCAP_CHANNEL_INFO info{};
    if (ioctl(fd, qv::kGetChannelInfo.code, &info) != 0) {
        std::printf("no channel\n");
        return 2;
    }
    std::printf("%d %.64s %u\n", fd, info.productName, unsigned{info.firmwareVersion});
    return close(fd) == 0 ? 0 : 3;
}
