// Draws the bar of a command that reads cards, on a terminal only. The bars of an upgrade are in
// Display.cpp.
#include "ReadingBar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

#include "Escape.h"

namespace qvo {
namespace {

constexpr unsigned kBarWidth = 20;
constexpr size_t kDefaultColumns = 80;
constexpr char kEraseLine[] = "\r\033[K";

size_t Columns() {
    winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kDefaultColumns;
    return size.ws_col;
}

}  // namespace

ReadingBar::ReadingBar(size_t cards) : m_onTerminal(isatty(STDERR_FILENO) == 1), m_cards(cards) {}

ReadingBar::~ReadingBar() {
    if (m_onTerminal && m_card > 0) std::fputs(kEraseLine, stderr);
}

void ReadingBar::Begin(const std::string& card) {
    ++m_card;
    m_name = card;
    m_percent = 0;
    Draw();
}

void ReadingBar::Show(uint64_t done, uint64_t total) {
    const auto percent = static_cast<unsigned>(total == 0 ? 100 : done * 100 / total);
    if (percent == m_percent) return;
    m_percent = percent;
    Draw();
}

void ReadingBar::Draw() {
    if (!m_onTerminal) return;
    // One column stays free: a terminal may begin a new line after the last one.
    const std::string text = ReadingBarText(m_card, m_cards, m_name, m_percent, Columns() - 1);
    std::fprintf(stderr, "%s%s", kEraseLine, text.c_str());
    std::fflush(stderr);
}

std::string ReadingBarText(size_t card, size_t cards, const std::string& name, unsigned percent,
                           size_t columns) {
    const unsigned filled = percent * kBarWidth / 100;
    char number[8];
    std::snprintf(number, sizeof number, "%3u%%", percent > 100 ? 100u : percent);
    const std::string front = "[" + std::to_string(card) + "/" + std::to_string(cards) + "] ";
    const std::string bar =
        "  [" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] " + number;
    // The name is shortened first. It is escaped ASCII, so a cut never splits a character.
    std::string shown;
    for (const char c : name) {
        const bool plain = c >= 0x20 && c < 0x7F;
        const std::string piece = plain ? std::string(1, c) : "?";
        if (front.size() + shown.size() + piece.size() + bar.size() > columns) break;
        shown += piece;
    }
    const std::string text = front + shown + bar;
    return text.substr(0, columns);
}

}  // namespace qvo
