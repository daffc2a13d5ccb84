// The scripted ALSA: its state; see FakeAlsa.h.
#include "lib/FakeAlsa.h"

namespace fake {

Alsa& Alsa::Get() {
    static Alsa alsa;
    return alsa;
}

void Alsa::Reset() {
    const std::lock_guard lock(mutex);
    available.clear();
    defaultAvailable = 0;
    reads.clear();
    writes.clear();
    states.clear();
    statusStates.clear();
    periodSize = 1024;
    periodCount = 4;
    bufferSize = 4096;
    frameBytes = 4;
    format = -1;
    channels = rate = 0;
    startThreshold = stopThreshold = 0;
    written.clear();
    pcmsOpen = 0;
    cards.clear();
    mixersOpen = controlsOpen = 0;
    ForgetCalls();
}

Card* Alsa::Attached(const std::string& device) {
    for (Card& card : cards)
        if ("hw:" + std::to_string(card.number) == device) return &card;
    return nullptr;
}

}  // namespace fake
