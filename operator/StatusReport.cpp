// The table and the JSON of `qvcap status`, and its exit status. Reads no card.
#include "StatusReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Escape.h"
#include "Report.h"
#include "Table.h"

namespace qvo {
namespace {

constexpr State kStates[] = {State::kCurrent,     State::kUpgradeAvailable, State::kStaged,
                             State::kInterrupted, State::kNoPackage,        State::kUnknown,
                             State::kUnreadable};

bool Any(const std::vector<StatusRow>& rows, std::initializer_list<State> states) {
    return std::any_of(rows.begin(), rows.end(), [&](const StatusRow& row) {
        return std::find(states.begin(), states.end(), row.verdict.state) != states.end();
    });
}

std::vector<std::string> Cells(const StatusRow& row) {
    const auto& [card, verdict] = row;
    const bool known = card.identified;
    return {card.Name(),
            known ? card.product : "-",
            known ? card.serial : "-",
            card.path,
            known ? qvf::VersionText(card.runningVersion) : "-",
            ImageText(verdict.main),
            ImageText(verdict.safe),
            verdict.package == nullptr ? "-" : qvf::VersionText(verdict.package->Version()),
            StateText(verdict.state)};
}

// The details that do not fit into the table.
std::string Notes(const StatusRow& row) {
    const Verdict& verdict = row.verdict;
    std::string text;
    const std::string card = qvf::Escaped(row.card.Name()) + ": ";
    if (!verdict.reason.empty()) text += card + qvf::Escaped(verdict.reason) + "\n";
    for (const Image* image : {&verdict.main, &verdict.safe})
        for (const Difference& difference : image->differences)
            text += card + (image == &verdict.main ? "main image: " : "safe image: ") +
                    qvf::Escaped(DifferenceText(difference)) + "\n";
    return text;
}

}  // namespace

std::string StatusText(const std::vector<StatusRow>& rows, const PackageSet& packages, bool quick) {
    std::string text;
    std::string notes;
    if (rows.empty()) {
        text = "no card was found; qvcap doctor says what may be the reason\n";
    } else {
        std::vector<std::vector<std::string>> cells = {
            {"CARD", "PRODUCT", "SERIAL", "PATH", "RUNNING", "MAIN", "SAFE", "PACKAGE", "STATE"}};
        for (const StatusRow& row : rows) {
            cells.push_back(Cells(row));
            notes += Notes(row);
        }
        text = TableText(cells);
    }
    notes += UnreadableText(packages);
    if (quick && !rows.empty()) notes += "judged by headers only: sections were not read\n";
    return notes.empty() ? text : text + "\n" + notes;
}

std::string StatusJson(const std::vector<StatusRow>& rows, const PackageSet& packages, bool quick) {
    Json json;
    json["schema"] = "qvcap-status";
    json["version"] = 1;
    json["headers_only"] = quick;
    json["packages"] = PackageSetJson(packages);
    json["cards"] = Json::array();
    for (const StatusRow& row : rows) {
        Json entry = CardJson(row.card);
        entry["main"] = ImageJson(row.verdict.main);
        entry["safe"] = ImageJson(row.verdict.safe);
        entry["package"] = PackageJson(row.verdict.package);
        entry["state"] = StateText(row.verdict.state);
        entry["reason"] = row.verdict.reason;
        json["cards"].push_back(std::move(entry));
    }
    for (const State state : kStates)
        json["summary"][StateText(state)] =
            std::count_if(rows.begin(), rows.end(),
                          [&](const StatusRow& row) { return row.verdict.state == state; });
    return DumpIndented(json);
}

ExitStatus StatusForScripts(const std::vector<StatusRow>& rows) {
    if (rows.empty()) return ExitStatus::kNoCard;
    if (Any(rows, {State::kUnknown, State::kUnreadable})) return ExitStatus::kFailed;
    if (Any(rows, {State::kUpgradeAvailable, State::kInterrupted})) return ExitStatus::kAvailable;
    if (Any(rows, {State::kStaged})) return ExitStatus::kPowerAwaited;
    if (Any(rows, {State::kNoPackage})) return ExitStatus::kNoCard;
    return ExitStatus::kDone;
}

ExitStatus StatusForPeople(const std::vector<StatusRow>& rows) {
    if (rows.empty()) return ExitStatus::kNoCard;
    return Any(rows, {State::kUnknown, State::kUnreadable}) ? ExitStatus::kFailed
                                                            : ExitStatus::kDone;
}

}  // namespace qvo
