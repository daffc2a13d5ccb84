// Issues the requests of a journal again, bare: what the same conversation with the driver costs
// without the tool. Run under the preload door, with the journal's path as its argument.
//
// Data written is a constant pattern. Data read is not looked at, unless a file, a place in it and
// a flash address are named: then the file is loaded, and what is read from that address on is
// compared with it. Records and data are in memory of the kind that programs use for them, which
// the door reaches in the same way. Single-threaded.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "Journal.h"
#include "QVDriverRecords.h"
#include "QVDriverRequests.h"

namespace {

struct Step {
    enum class Kind { kOpen, kClose, kRequest } kind;
    std::string node;
    uint32_t code = 0;
    uint32_t offset = 0;
    uint32_t size = 0;
};

uint32_t Argument(const std::string& arguments, const std::string& name) {
    const size_t at = arguments.find(name + "=");
    if (at == std::string::npos) return 0;
    return static_cast<uint32_t>(strtoul(arguments.c_str() + at + name.size() + 1, nullptr, 0));
}

// The requests that the tool makes; anything else in a journal is a mistake of the benchmark.
uint32_t CodeOf(const std::string& request) {
    static const std::map<std::string, uint32_t> codes = {
        {"GetChannelInfo", qv::kGetChannelInfo.code},
        {"GetFamilyInfo", qv::kGetFamilyInfo.code},
        {"GetFirmwareStorageInfo", qv::kGetFirmwareStorageInfo.code},
        {"EraseFirmwareData", qv::kEraseFirmwareData.code},
        {"WriteFirmwareData", qv::kWriteFirmwareData.code},
        {"ReadFirmwareData", qv::kReadFirmwareData.code},
        {"SetPostReconfig", qv::kSetPostReconfig.code},
    };
    const auto found = codes.find(request);
    if (found != codes.end()) return found->second;
    fprintf(stderr, "replay: a request that the tool does not make: %s\n", request.c_str());
    exit(2);
}

std::vector<Step> Load(const char* path) {
    std::vector<Step> steps;
    std::ifstream file(path);
    for (std::string text; std::getline(file, text);) {
        qvsim::JournalLine line;
        if (!qvsim::ParseJournalLine(text, line)) continue;
        if (line.action == "open") {
            steps.push_back({Step::Kind::kOpen, line.node});
        } else if (line.action == "close") {
            steps.push_back({Step::Kind::kClose, line.node});
        } else {
            steps.push_back({Step::Kind::kRequest, line.node, CodeOf(line.request),
                             Argument(line.arguments, "offset"), Argument(line.arguments, "size")});
        }
    }
    return steps;
}

// What flash should hold.
struct Expected {
    std::vector<unsigned char> bytes;
    size_t skip = 0;       // of the file
    uint32_t address = 0;  // of what is behind that
    size_t different = 0;  // chunks that were not as they should be

    void Load(const char* path, const char* from, const char* at) {
        bytes.resize(static_cast<size_t>(std::filesystem::file_size(path)));
        std::ifstream file(path, std::ios::binary);
        file.read(reinterpret_cast<char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
        skip = std::min<size_t>(strtoul(from, nullptr, 0), bytes.size());
        address = static_cast<uint32_t>(strtoul(at, nullptr, 0));
    }
    void Compare(const Step& step, const unsigned char* data) {
        const size_t size = bytes.size() - skip;
        if (step.offset < address || step.size > size || step.offset - address > size - step.size)
            return;
        different += memcmp(data, bytes.data() + skip + step.offset - address, step.size) != 0;
    }
};

// One buffer for every record: large enough for each, zero before each.
void Issue(int fd, const Step& step, unsigned char* data) {
    alignas(8) unsigned char record[256] = {};
    if (step.code == qv::kEraseFirmwareData.code) {
        const qv::FirmwareEraseRecord erase{step.offset, step.size};
        memcpy(record, &erase, sizeof erase);
    } else if (step.size > 0) {
        const qv::FirmwareDataRecord transfer{step.offset, step.size, qv::WireAddress(data)};
        memcpy(record, &transfer, sizeof transfer);
    }
    ioctl(fd, step.code, record);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 5) {
        fprintf(stderr, "usage: replay JOURNAL [FILE SKIP ADDRESS]\n");
        return 2;
    }
    const std::vector<Step> steps = Load(argv[1]);
    std::vector<unsigned char> data(65536, 0x5A);
    Expected expected;
    if (argc == 5) expected.Load(argv[2], argv[3], argv[4]);
    std::map<std::string, std::vector<int>> opened;
    for (const Step& step : steps) {
        std::vector<int>& descriptors = opened[step.node];
        if (step.kind == Step::Kind::kOpen) {
            const int fd = open(step.node.c_str(), O_RDWR | O_NONBLOCK);
            if (fd >= 0) descriptors.push_back(fd);
        } else if (descriptors.empty()) {
            continue;
        } else if (step.kind == Step::Kind::kClose) {
            close(descriptors.back());
            descriptors.pop_back();
        } else {
            Issue(descriptors.back(), step, data.data());
            if (step.code == qv::kReadFirmwareData.code) expected.Compare(step, data.data());
        }
    }
    return steps.empty() || expected.different > 0 ? 1 : 0;
}
