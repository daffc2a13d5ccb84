// Asking a node that may never answer: a child asks it, so that whoever waits can go on. One
// thread.
#pragma once

#include <optional>
#include <string>

#include "Nodes.h"

namespace qvo {

// Nothing when no answer came within so many seconds; the child is told to end then, and not waited
// for.
std::optional<NodeAnswers> AskNodeWithin(const std::string& path, int seconds);

}  // namespace qvo
