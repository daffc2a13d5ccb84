// The linker redirects the calls of these two functions here (see CMakeLists.txt): the tool leaves
// some channels open until it ends, but a target runs many times and must close them.
#include "OpenChannels.h"

#include <algorithm>
#include <vector>

#include "QVCapture.h"

extern "C" {
QV_CHANNEL __real_QVOpenChannelByPath(const char* path);
void __real_QVCloseChannel(QV_CHANNEL channel);
QV_CHANNEL __wrap_QVOpenChannelByPath(const char* path);
void __wrap_QVCloseChannel(QV_CHANNEL channel);
}

namespace {

std::vector<QV_CHANNEL>& Open() {
    static std::vector<QV_CHANNEL> open;
    return open;
}

}  // namespace

QV_CHANNEL __wrap_QVOpenChannelByPath(const char* path) {
    QV_CHANNEL channel = __real_QVOpenChannelByPath(path);
    if (channel != nullptr) Open().push_back(channel);
    return channel;
}

void __wrap_QVCloseChannel(QV_CHANNEL channel) {
    std::erase(Open(), channel);
    __real_QVCloseChannel(channel);
}

namespace qvfuzz {

void CloseChannelsLeftOpen() {
    for (QV_CHANNEL channel : Open()) __real_QVCloseChannel(channel);
    Open().clear();
}

}  // namespace qvfuzz
