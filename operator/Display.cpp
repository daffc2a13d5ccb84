// Shows the events of a run: on a terminal, as plain lines or as JSON. Decides nothing.
#include "Display.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "Escape.h"
#include "Report.h"

namespace qvo {
namespace {

constexpr unsigned kEveryPercent = 10;  // steps of the percentage in JSON
constexpr size_t kBarWidth = 20;
constexpr unsigned kWhole = 1000;

std::string Text(const Event& event, const char* key) {
    const auto found = event.find(key);
    if (found == event.end()) return "";
    return found->is_string() ? qvf::Escaped(found->get<std::string>()) : found->dump();
}

uint64_t Number(const Event& event, const char* key) {
    const auto found = event.find(key);
    return found != event.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

std::string Behind(const std::string& separator, const std::string& text) {
    return text.empty() ? "" : separator + text;
}

std::string SizeText(uint64_t bytes) {
    char text[32];
    if (bytes < uint64_t{10} * 1024)
        std::snprintf(text, sizeof text, "%u B", static_cast<unsigned>(bytes));
    else if (bytes < uint64_t{10} * 1024 * 1024)
        std::snprintf(text, sizeof text, "%u KiB", static_cast<unsigned>(bytes / 1024));
    else
        std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1024 * 1024));
    return text;
}

std::string PlanLine(const Event& event) {
    std::string text = Text(event, "card") + " " + Text(event, "product") +
                       Behind(" ", Text(event, "serial")) + ": ";
    const std::string action = Text(event, "action");
    if (action != "flash" && action != "bring back")
        return text + action + Behind(": ", Text(event, "reason"));
    text += Text(event, "mode") + " from " + Text(event, "from") + " to " + Text(event, "to") +
            " with " + Text(event, "package") + ", erase " + SizeText(Number(event, "erase")) +
            ", write " + SizeText(Number(event, "write")) + ", verify " +
            SizeText(Number(event, "verify")) + Behind(" (", Text(event, "reason"));
    if (!Text(event, "reason").empty()) text += ")";
    for (const Event& warning : event.value("warnings", Event::array()))
        if (warning.is_string()) text += "\n  warning: " + qvf::Escaped(warning.get<std::string>());
    return text;
}

std::string BackupText(const Event& event) {
    std::string text;
    for (const Event& image : event.value("images", Event::array()))
        text += Behind(text.empty() ? "" : ", ", Text(image, "image") + " image " +
                                                     Text(image, "version") + " saved as " +
                                                     Text(image, "file"));
    for (const Event& note : event.value("notes", Event::array()))
        if (note.is_string())
            text += Behind(text.empty() ? "" : "; ", qvf::Escaped(note.get<std::string>()));
    return text.empty() ? "nothing to save" : text;
}

std::string EndText(const Event& event) {
    std::string text = "done " + Text(event, "done");
    constexpr std::pair<const char*, const char*> kCounts[] = {
        {"failed", ", failed "},   {"refused", ", refused "}, {"busy", ", busy "},
        {"left", ", left alone "}, {"skipped", ", skipped "}, {"not_begun", ", not begun "},
        {"planned", ", planned "}};
    for (const auto& [key, words] : kCounts)
        if (Number(event, key) > 0) text += words + Text(event, key);
    return text + "; " + Text(event, "meaning") + " (exit status " + Text(event, "exit_status") +
           ")";
}

size_t TerminalWidth() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

std::string TimeLeft(double seconds) {
    char text[32];
    const auto whole = static_cast<unsigned>(std::clamp(seconds, 0.0, 359999.0));
    std::snprintf(text, sizeof text, "%u:%02u", whole / 60, whole % 60);
    return text;
}

}  // namespace

unsigned Permille(const std::string& stage, unsigned percent) {
    const char* const kStages[] = {"erasing", "writing", "verifying", "reading back"};
    for (unsigned i = 0; i < 4; ++i)
        if (stage == kStages[i])
            return std::min(kWhole, i * kWhole / 4 + std::min(percent, 100u) * kWhole / 400);
    return 0;
}

std::string PlainText(const Event& event) {
    const std::string kind = Text(event, "event");
    const std::string card = Text(event, "card");
    if (kind == "begin") {
        const std::string dry =
            event.value("dry_run", false) ? " (dry run: nothing is written)" : "";
        return "run " + Text(event, "run") + " by " + Text(event, "who") + ", packages of " +
               Text(event, "packages") + dry;
    }
    if (kind == "plan") return PlanLine(event);
    if (kind == "notice") return Text(event, "message");
    if (kind == "backup") return card + ": " + BackupText(event);
    if (kind == "card-begin")
        return card + ": " + Text(event, "mode") + " from " + Text(event, "from") + " to " +
               Text(event, "to") + ", attempt " + Text(event, "attempt") + ", process " +
               Text(event, "process");
    if (kind == "stage") return card + ": " + Text(event, "stage");
    if (kind == "stalled")
        return card + ": nothing has come from process " + Text(event, "process") + " for " +
               Text(event, "seconds") +
               " s: a request hangs in the driver. It is waited for, not ended";
    if (kind == "tool-end")
        return card + ": qvcap-upgrade says: " + Text(event, "result") +
               Behind(", ", Text(event, "message"));
    if (kind == "retry") return card + ": tried again: " + Text(event, "reason");
    if (kind == "bring-back")
        return card + ": the main image is unfinished; " + Text(event, "package") + " (" +
               Text(event, "to") + ") brings a normal upgrade back";
    if (kind == "card-end")
        return card + ": " + Text(event, "result") + ", " + Text(event, "state") +
               Behind(": ", Text(event, "reason"));
    if (kind == "stopping")
        return "signal " + Text(event, "signal") +
               ": the cards in work are finished, no other is begun";
    if (kind == "end") return EndText(event);
    return "";
}

void Display::Take(const Event& event) {
    const std::lock_guard lock(m_lock);
    switch (m_look) {
        case Look::kJson:
            return TakeJson(event);
        case Look::kPlain:
            return TakePlain(event);
        case Look::kTerminal:
            return TakeTerminal(event);
    }
}

void Display::TakeJson(const Event& event) {
    const std::string kind = event.value("event", "");
    if (kind == "progress" || kind == "stage") {
        unsigned& told = m_told[event.value("card", "")];
        const unsigned percent = event.value("percent", 0u);
        if (kind == "progress" && percent < told + kEveryPercent) return;
        told = percent;
    }
    m_out << DumpLine(event) << std::flush;
}

void Display::TakePlain(const Event& event) {
    const std::string text = PlainText(event);
    if (text.empty()) return;
    m_out << event.value("time", "") << " " << text << "\n" << std::flush;
}

void Display::Follow(const Event& event) {
    const std::string kind = event.value("event", "");
    const std::string card = Text(event, "card");
    if (kind == "plan") {
        const std::string action = event.value("action", "");
        m_cards += action == "flash" || action == "bring back" ? 1 : 0;
    } else if (kind == "card-begin") {
        m_lines[card] = {card, "starting", 0, Number(event, "bytes"), Clock::now()};
    } else if (kind == "stage" || kind == "progress") {
        const auto line = m_lines.find(card);
        if (line == m_lines.end()) return;
        line->second.stage = Text(event, "stage");
        line->second.percent = event.value("percent", 0u);
    } else if (kind == "card-end") {
        m_lines.erase(card);
        ++m_ended;
    }
}

// On a terminal, an event that only moves a bar gets no line.
void Display::TakeTerminal(const Event& event) {
    const std::string kind = event.value("event", "");
    Wipe();
    Follow(event);
    const std::string text = kind == "stage" || kind == "tool-end" ? "" : PlainText(event);
    if (!text.empty()) m_out << text << "\n";
    if (kind != "end") Draw();
    m_out << std::flush;
}

void Display::Wipe() {
    if (m_drawn > 0) m_out << "\033[" << m_drawn << "A\033[J";
    m_drawn = 0;
}

void Display::Draw() {
    if (m_lines.empty()) return;
    const size_t width = TerminalWidth() - 1;
    for (const auto& [name, line] : m_lines) m_out << LineText(line, width) << "\n";
    m_out << TotalText().substr(0, width) << "\n";
    m_drawn = m_lines.size() + 1;
}

std::string Display::LineText(const Line& line, size_t width) const {
    const unsigned permille = Permille(line.stage, line.percent);
    const size_t full = permille * kBarWidth / kWhole;
    const double spent = std::chrono::duration<double>(Clock::now() - line.begun).count();
    const uint64_t bytes = line.bytes * std::min(line.percent, 100u) / 100;
    std::string text = line.name + " [" + std::string(full, '#') +
                       std::string(kBarWidth - full, '.') + "] " + line.stage + " " +
                       std::to_string(line.percent) + "%, " + SizeText(bytes) + " of " +
                       SizeText(line.bytes);
    if (permille > 0) text += ", " + TimeLeft(spent * (kWhole - permille) / permille) + " left";
    return text.substr(0, width);
}

std::string Display::TotalText() const {
    uint64_t done = m_ended * kWhole;
    for (const auto& [name, line] : m_lines) done += Permille(line.stage, line.percent);
    const uint64_t all = std::max<uint64_t>(m_cards, m_ended + m_lines.size()) * kWhole;
    const double spent = std::chrono::duration<double>(Clock::now() - m_begun).count();
    std::string text = "total: " + std::to_string(m_ended) + " of " + std::to_string(m_cards) +
                       " cards, " + std::to_string(all == 0 ? 100 : done * 100 / all) + "%";
    if (done > 0 && all > done)
        text += ", " +
                TimeLeft(spent * static_cast<double>(all - done) / static_cast<double>(done)) +
                " left";
    return text;
}

}  // namespace qvo
