// What an upgrade shows while it runs: on a terminal a live line for each active card and a total,
// elsewhere a line with its time for each event, or the events as JSON. It never writes a control
// character to a file. Any thread; lines of several threads never mix.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <ostream>
#include <string>

#include "Events.h"

namespace qvo {

enum class Look { kPlain, kTerminal, kJson };

// The readable line of an event, without its time; empty for events that need no line.
std::string PlainText(const Event& event);

class Display {
  public:
    Display(Look look, std::ostream& out) : m_look(look), m_out(out) {}
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    void Take(const Event& event);

  private:
    using Clock = std::chrono::steady_clock;
    struct Line {
        std::string name;
        std::string stage;
        unsigned percent = 0;
        uint64_t bytes = 0;  // of the image
        Clock::time_point begun;
    };

    void TakeJson(const Event& event);
    void TakePlain(const Event& event);
    void TakeTerminal(const Event& event);
    void Follow(const Event& event);
    void Wipe();
    void Draw();
    std::string LineText(const Line& line, size_t width) const;
    std::string TotalText() const;

    const Look m_look;
    std::ostream& m_out;
    std::mutex m_lock;
    std::map<std::string, unsigned> m_told;  // the last percentage of each card in the JSON
    std::map<std::string, Line> m_lines;     // of the active cards
    size_t m_drawn = 0;                      // lines on the terminal that will be overwritten
    size_t m_cards = 0;                      // that will be flashed
    size_t m_ended = 0;
    Clock::time_point m_begun = Clock::now();
};

// How far a card is through erasing, writing, verifying and reading back, of 1000.
unsigned Permille(const std::string& stage, unsigned percent);

}  // namespace qvo
