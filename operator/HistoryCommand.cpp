// qvcap history: what was done to the cards.
#include <algorithm>
#include <iostream>
#include <memory>

#include "Commands.h"
#include "Events.h"
#include "ExitStatus.h"
#include "History.h"
#include "Report.h"
#include "Selection.h"

namespace qvo {
namespace {

struct HistoryArguments {
    std::string log = kLogFolder;
    std::string serial;
    size_t last = 0;  // 0: all
    bool json = false;
};

void Choose(const HistoryArguments& arguments, History& history) {
    std::vector<HistoryEntry>& entries = history.entries;
    if (!arguments.serial.empty())
        std::erase_if(entries,
                      [&](const HistoryEntry& entry) { return entry.serial != arguments.serial; });
    if (arguments.last > 0 && entries.size() > arguments.last)
        entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(arguments.last));
}

int Show(const HistoryArguments& arguments) {
    History history = ReadHistory(arguments.log);
    Choose(arguments, history);
    if (!arguments.json) {
        std::cout << HistoryText(history);
        return Number(ExitStatus::kDone);
    }
    Event report;
    report["schema"] = "qvcap-history";
    report["version"] = 1;
    report["damaged"] = history.damaged;
    report["entries"] = Event::array();
    for (const HistoryEntry& entry : history.entries)
        report["entries"].push_back(HistoryJson(entry));
    std::cout << DumpLine(report);
    return Number(ExitStatus::kDone);
}

}  // namespace

void AddHistory(CLI::App& app, int& status) {
    const auto arguments = std::make_shared<HistoryArguments>();
    CLI::App* command = app.add_subcommand("history", "show what was done to the cards");
    command->add_option("--log", arguments->log, "folder of the history")->check(NotEmpty());
    command->add_option("--serial", arguments->serial, "only the card with this serial number")
        ->check(NotEmpty());
    command->add_option("--last", arguments->last, "only so many, the newest")
        ->check(CLI::NonNegativeNumber);
    command->add_flag("--json", arguments->json, "as JSON");
    command->callback([arguments, &status] { status = Show(*arguments); });
}

}  // namespace qvo
