// The progress line of reading: on standard error, if that is a terminal, and removed at the end.
// One at a time, one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qvo {

class ReadingBar {
  public:
    // For so many cards.
    explicit ReadingBar(size_t cards);
    ~ReadingBar();
    ReadingBar(const ReadingBar&) = delete;
    ReadingBar& operator=(const ReadingBar&) = delete;

    // The next card. Drawn at once, so that the line shows a card that never answers.
    void Begin(const std::string& card);
    void Show(uint64_t done, uint64_t total);

  private:
    void Draw();

    bool m_onTerminal;
    size_t m_cards;
    size_t m_card = 0;
    std::string m_name;
    unsigned m_percent = 0;
};

// "[2/8] 00:01 Pelix Duo  [#####...............]  25%", cut to `columns`.
std::string ReadingBarText(size_t card, size_t cards, const std::string& name, unsigned percent,
                           size_t columns);

}  // namespace qvo
