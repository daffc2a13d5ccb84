// Erases, writes and verifies a range of a card's flash, as a firmware upgrade does for each
// section.
//
//   write_flash DEVICE ADDRESS FILE     the file's bytes at that flash address
//
// Everything else in the 4 KiB sectors that it touches is erased, too. For real firmware use
// qvcap-upgrade, which knows packages, safe upgrades and how to go on after a failure.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "QVCapture.hpp"

namespace {

constexpr unsigned int kSector = 4096;
constexpr unsigned int kChunk = 64 * 1024;  // one library call is one driver request
constexpr unsigned int kReconfigure = 200;

using Bytes = std::vector<unsigned char>;

// Calls work(offset, size) for the range in chunks, with progress; false as soon as one fails.
template <class Work>
bool inChunks(const char* what, unsigned int total, Work work) {
    for (unsigned int done = 0; done < total;) {
        const unsigned int size = std::min(kChunk, total - done);
        if (!work(done, size)) {
            std::fprintf(stderr, "\n%s failed %u bytes behind the start\n", what, done);
            return false;
        }
        done += size;
        std::printf("\r%s: %u of %u bytes", what, done, total);
        std::fflush(stdout);
    }
    std::printf("\n");
    return true;
}

bool upgrade(QV_CHANNEL channel, unsigned int address, Bytes& bytes) {
    const auto size = static_cast<unsigned int>(bytes.size());
    const unsigned int sectors = (size + kSector - 1) / kSector * kSector;
    Bytes readBack(kChunk);
    return inChunks("erasing", sectors,
                    [&](unsigned int offset, unsigned int part) {
                        return QVEraseFirmwareData(channel, address + offset, part) == QV_RESULT_OK;
                    }) &&
           inChunks("writing", size,
                    [&](unsigned int offset, unsigned int part) {
                        return QVWriteFirmwareData(channel, address + offset, &bytes[offset],
                                                   part) == QV_RESULT_OK;
                    }) &&
           inChunks("verifying", size, [&](unsigned int offset, unsigned int part) {
               unsigned int got = 0;
               return QVReadFirmwareData(channel, address + offset, readBack.data(), part, &got) ==
                          QV_RESULT_OK &&
                      got == part && std::memcmp(readBack.data(), &bytes[offset], part) == 0;
           });
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: write_flash DEVICE ADDRESS FILE\n");
        return 2;
    }
    const auto address = static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 0));
    std::ifstream file(argv[3], std::ios::binary);
    Bytes bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (bytes.empty() || address % kSector != 0) {
        std::fprintf(stderr, "%s: empty or unreadable, or the address is not that of a sector\n",
                     argv[3]);
        return 2;
    }
    const qvcapture::Instance instance;
    const qvcapture::Channel channel(argv[1]);
    if (!channel) {
        std::fprintf(stderr, "%s: not a capture channel, or it cannot be opened\n", argv[1]);
        return 1;
    }
    if (!upgrade(channel.Handle(), address, bytes)) return 1;
    return QVSetPostReconfig(channel.Handle(), kReconfigure) == QV_RESULT_OK ? 0 : 1;
}
