// Video nodes as the driver answers them, below the library's list: for the nodes that the library
// could not take for a channel. Two requests for identity, each read-only. One thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "QVCaptureTypes.h"

namespace qvo {

// "/dev/video0" and so on, by their numbers. Only what is there.
std::vector<std::string> VideoNodePaths();

struct NodeAnswers {
    int openError = 0;  // errno, 0 when it opened
    int identityError = 0;
    int familyError = 0;
    std::optional<_QVCAP_CHANNEL_INFO> identity;
    bool family = false;

    bool IsChannel() const { return identity && family; }
    // Not a channel, but for one that is broken or not allowed: it cannot be opened, or one of the
    // two requests was answered, or refused in another way than by a driver that does not know it.
    bool ShouldBeChannel() const;
    // Why it is not a channel, in words.
    std::string Problem() const;
};

NodeAnswers AskNode(const std::string& path);

}  // namespace qvo
