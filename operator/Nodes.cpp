// Sends the two identity requests to a node. Knows nothing of packages or flash.
#include "Nodes.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "QVDriverRequests.h"

namespace qvo {
namespace {

constexpr std::string_view kVideoPrefix = "video";
constexpr size_t kMostDigits = 6;

// The number after "video", -1 for any other name.
int NodeNumber(std::string_view name) {
    if (!name.starts_with(kVideoPrefix)) return -1;
    const std::string_view digits = name.substr(kVideoPrefix.size());
    if (digits.empty() || digits.size() > kMostDigits) return -1;
    if (digits.find_first_not_of("0123456789") != digits.npos) return -1;
    return std::atoi(std::string(digits).c_str());
}

int IsVideoNode(const dirent* entry) { return NodeNumber(entry->d_name) >= 0 ? 1 : 0; }

// The errors of a driver that does not know the request.
bool IsForeign(int error) { return error == ENOTTY || error == EINVAL || error == ENOSYS; }

}  // namespace

std::vector<std::string> VideoNodePaths() {
    dirent** entries = nullptr;
    const int count = scandir("/dev", &entries, IsVideoNode, nullptr);
    std::vector<int> numbers;
    for (int i = 0; i < count; ++i) {
        numbers.push_back(NodeNumber(entries[i]->d_name));
        std::free(entries[i]);
    }
    std::free(entries);
    std::sort(numbers.begin(), numbers.end());
    std::vector<std::string> paths;
    paths.reserve(numbers.size());
    for (const int number : numbers) paths.push_back("/dev/video" + std::to_string(number));
    return paths;
}

bool NodeAnswers::ShouldBeChannel() const {
    if (IsChannel()) return false;
    if (openError != 0) return openError != ENOENT;
    return identity || family || !IsForeign(identityError) || !IsForeign(familyError);
}

std::string NodeAnswers::Problem() const {
    if (openError != 0) return std::string("cannot be opened: ") + std::strerror(openError);
    if (!identity)
        return std::string("the identity cannot be asked: ") + std::strerror(identityError);
    if (!family) return std::string("the family cannot be asked: ") + std::strerror(familyError);
    return "";
}

NodeAnswers AskNode(const std::string& path) {
    NodeAnswers answers;
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        answers.openError = errno;
        return answers;
    }
    _QVCAP_CHANNEL_INFO info = {};
    if (ioctl(fd, qv::kGetChannelInfo.code, &info) == 0)
        answers.identity = info;
    else
        answers.identityError = errno;
    _QVCAP_PELIX_CAPTURE_INFO family = {};
    answers.family = ioctl(fd, qv::kGetFamilyInfo.code, &family) == 0;
    if (!answers.family) answers.familyError = errno;
    close(fd);
    return answers;
}

}  // namespace qvo
