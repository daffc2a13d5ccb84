// The files of a folder of simulated cards: its state, the settings of a channel, the journal.
// A damaged file is refused with an error that names it, and what is accepted is complete.
#include <string>
#include <vector>

#include "CardsState.h"
#include "Folder.h"
#include "Input.h"
#include "Journal.h"
#include "OpenRecord.h"
#include "PlainFiles.h"
#include "Settings.h"
#include "Targets.h"

namespace qvfuzz {
namespace {

void State(const std::string& text) {
    static const std::string kPage = qvsim::Folder::Make(Folder());
    Check(kPage.empty(), "the page of the folder cannot be made");
    Check(qvsim::ReplaceFile(qvsim::StatePath(Folder()), text), "the input cannot be written");
    qvsim::CardsState state;
    const std::string error = qvsim::LoadState(Folder(), state);
    if (!error.empty()) {
        Check(error.find("cards.state") != std::string::npos, "an error without its file");
        return;
    }
    for (const qvsim::BoardState& board : state.boards)
        Check(!board.channels.empty(), "a board without channels");
    // What was taken is a whole: written and read again it is the same.
    Check(qvsim::SaveState(Folder(), state).empty(), "what was read cannot be written");
    const std::string written = qvsim::ReadText(qvsim::StatePath(Folder()));
    qvsim::CardsState again;
    Check(qvsim::LoadState(Folder(), again).empty(), "what was written cannot be read");
    Check(qvsim::SaveState(Folder(), again).empty(), "it cannot be written again");
    Check(qvsim::ReadText(qvsim::StatePath(Folder())) == written, "two texts of one state");
}

void SettingsOf(const std::string& text) {
    qvsim::Settings settings;
    if (settings.Load(text) != 0) return;
    const std::string written = settings.Save();
    qvsim::Settings again;
    Check(again.Load(written) == 0, "settings that cannot be read again");
    Check(again.Save() == written, "two texts of the same settings");
}

void JournalOf(const std::string& text) {
    Check(qvsim::ReplaceFile(qvsim::JournalPath(Folder()), text), "the input cannot be written");
    std::vector<qvsim::JournalLine> lines;
    qvsim::ReadJournal(Folder(), lines);  // those before the first invalid one
    for (const qvsim::JournalLine& line : lines)
        Check(line.action == "open" || line.action == "close" || line.action == "ioctl",
              "a line of another kind");
    qvsim::OpenRecord record;
    qvsim::ParseOpenRecord(Folder(), Folder() + "/open/" + text, record);
}

}  // namespace

// The first byte says which file it is.
void ReadStateFiles(const uint8_t* data, size_t size) {
    if (size == 0) return;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (*data == 'c') State(text);
    if (*data == 's') SettingsOf(text);
    if (*data == 'j') JournalOf(text);
}

}  // namespace qvfuzz
