// A scripted ALSA in place of the real one, for exact call sequences and for every refusal.
//
// The fake defines the snd_... functions that the library calls, so a test program that links it
// needs no sound card. PCM calls are in FakeAlsaPcm.cpp, cards and mixer in FakeAlsaMixer.cpp.
// A refused call returns the result given with the refusal.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "lib/CallLog.h"

namespace fake {

struct PcmWrite {
    std::vector<unsigned char> bytes;
    unsigned long frames;
};

// One mixer element.
struct Element {
    std::string name;
    bool simple = true;
    bool active = true;
    bool captureVolume = true;
    bool playbackVolume = false;
    std::vector<int> channels{0, 1};  // ids of its capture channels
    long minimum = 0;
    long maximum = 50;
    std::map<int, long> volume{};  // raw, by channel id
    std::map<int, int> on{};       // switch, by channel id
};

struct Card {
    int number;
    std::string name;
    std::string id;
    std::vector<Element> elements;
};

class Alsa : public CallLog {
  public:
    // The one ALSA of the process, as new after Reset().
    static Alsa& Get();
    void Reset();

    // PCM: what a device answers. Scripts are consumed; an empty one means the default.
    std::deque<long> available;  // snd_pcm_avail_update; default defaultAvailable
    long defaultAvailable = 0;
    std::deque<long> reads;           // snd_pcm_readi; default: all frames asked for
    std::deque<long> writes;          // snd_pcm_writei; default: all frames given
    std::deque<int> states;           // snd_pcm_state; default running
    std::deque<int> statusStates;     // state in snd_pcm_status; default running
    unsigned long periodSize = 1024;  // frames
    unsigned periodCount = 4;
    unsigned long bufferSize = 4096;  // frames
    int frameBytes = 4;               // of the silence written after an underrun

    // Sound cards, in the order of snd_card_next; a mixer is attached by "hw:<number>".
    std::vector<Card> cards;
    int mixersOpen = 0;
    int controlsOpen = 0;
    Card* Attached(const std::string& device);

    // PCM: what the library did.
    int format = -1;
    unsigned channels = 0;
    unsigned rate = 0;
    unsigned long startThreshold = 0;
    unsigned long stopThreshold = 0;
    std::vector<PcmWrite> written;
    int pcmsOpen = 0;
};

}  // namespace fake
