// Queries video nodes directly, without the library's list: for nodes that the library does not
// list as channels. Sends two identity requests, which only read. One thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "QVCaptureTypes.h"

namespace qvo {

// "/dev/video0" and so on, in the order of their numbers; only existing nodes.
std::vector<std::string> VideoNodePaths();

struct NodeAnswers {
    int openError = 0;  // errno, 0 when it opened
    int identityError = 0;
    int familyError = 0;
    std::optional<_QVCAP_CHANNEL_INFO> identity;
    bool family = false;

    bool IsChannel() const { return identity && family; }
    // Whether the node is no channel but should be one: it exists and cannot be opened, or only one
    // of the two requests was answered, or one was refused with another error than by a driver that
    // does not know it.
    bool ShouldBeChannel() const;
    // Why it is not a channel, in words.
    std::string Problem() const;
};

NodeAnswers AskNode(const std::string& path);

}  // namespace qvo
