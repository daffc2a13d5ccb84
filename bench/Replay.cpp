// Makes the requests of a journal again, directly: what the same requests cost without the tool.
// Run under the preload door, with the journal's path as its argument.
//
// Writes a constant pattern; ignores the data read. Single-threaded.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// One buffer for every record: large enough for each, zero before each.
void Issue(int fd, const Step& step, unsigned char* data) {
    alignas(8) static unsigned char record[256];
    memset(record, 0, sizeof record);
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
    if (argc != 2) {
        fprintf(stderr, "usage: replay JOURNAL\n");
        return 2;
    }
    const std::vector<Step> steps = Load(argv[1]);
    static unsigned char data[65536];
    memset(data, 0x5A, sizeof data);
    std::map<std::string, std::vector<int>> m_open;
    for (const Step& step : steps) {
        std::vector<int>& descriptors = m_open[step.node];
        if (step.kind == Step::Kind::kOpen) {
            const int fd = open(step.node.c_str(), O_RDWR | O_NONBLOCK);
            if (fd >= 0) descriptors.push_back(fd);
        } else if (descriptors.empty()) {
            continue;
        } else if (step.kind == Step::Kind::kClose) {
            close(descriptors.back());
            descriptors.pop_back();
        } else {
            Issue(descriptors.back(), step, data);
        }
    }
    return steps.empty() ? 1 : 0;
}
