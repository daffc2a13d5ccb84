// The channels that the code under test has opened and not closed. One thread.
#pragma once

namespace qvfuzz {

void CloseChannelsLeftOpen();

}  // namespace qvfuzz
