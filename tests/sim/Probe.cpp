// Opens the node named on the command line and prints its descriptor and product name, or why not;
// with an address behind it, writes a sector of flash there instead.
// Run by CommandsTest under the preload door.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "QVDriverRequests.h"

namespace {

int writeFlash(int fd, uint32_t address) {
    static const unsigned char zeros[4096] = {};
    qv::FirmwareDataRecord record{address, sizeof zeros, reinterpret_cast<uintptr_t>(zeros)};
    if (ioctl(fd, qv::kWriteFirmwareData.code, &record) == 0) return 0;
    std::printf("refused: %s\n", std::strerror(errno));
    return 4;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) return 64;
    const int fd = open(argv[1], O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        std::printf("%s\n", std::strerror(errno));
        return 1;
    }
    if (argc == 3) return writeFlash(fd, static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 0)));
    _QVCAP_CHANNEL_INFO info{};
    if (ioctl(fd, qv::kGetChannelInfo.code, &info) != 0) {
        std::printf("no channel\n");
        return 2;
    }
    std::printf("%d %.64s %u\n", fd, info.productName, unsigned{info.firmwareVersion});
    return close(fd) == 0 ? 0 : 3;
}
