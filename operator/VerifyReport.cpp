// Text and JSON of `qvcap verify`, and its exit status. Reads no card.
#include "VerifyReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Escape.h"
#include "Report.h"

namespace qvo {
namespace {

const char* SamenessText(Sameness sameness) {
    switch (sameness) {
        case Sameness::kSame:
            return "same";
        case Sameness::kDifferent:
            return "different";
        case Sameness::kNoPackage:
            return "no package";
        case Sameness::kUntold:
            break;
    }
    return "cannot be told";
}

// One line for the image and, if it is or should be the package's, one for each section that
// differs.
std::string ImageLines(const char* word, const Image& image) {
    std::string text = std::string("  ") + word + " image: " + ImageText(image) + "\n";
    if (image.content == Content::kOther || image.content == Content::kNotRead) return text;
    for (const Difference& difference : image.differences)
        text += "    " + qvf::Escaped(DifferenceText(difference)) + "\n";
    return text;
}

std::string CardText(const StatusRow& row, const Digests& digests) {
    const Verdict& verdict = row.verdict;
    std::string text = qvf::Escaped(row.card.Name());
    if (row.card.identified) text += " " + qvf::Escaped(row.card.product);
    text += std::string(": ") + SamenessText(SamenessOf(verdict)) + "\n";
    if (!verdict.reason.empty()) text += "  " + qvf::Escaped(verdict.reason) + "\n";
    if (verdict.package == nullptr) return text;
    const std::string& name = verdict.package->name;
    text += "  package " + qvf::Escaped(name) + " " + qvf::VersionText(verdict.package->Version()) +
            "\n";
    if (const auto digest = digests.find(name); digest != digests.end())
        text += "  sha256 " + digest->second + "\n";
    return text + ImageLines("main", verdict.main) + ImageLines("safe", verdict.safe);
}

bool Any(const std::vector<StatusRow>& rows, Sameness sameness) {
    return std::any_of(rows.begin(), rows.end(),
                       [&](const StatusRow& row) { return SamenessOf(row.verdict) == sameness; });
}

}  // namespace

Sameness SamenessOf(const Verdict& verdict) {
    if (verdict.state == State::kNoPackage) return Sameness::kNoPackage;
    if (verdict.state == State::kUnreadable || verdict.package == nullptr ||
        verdict.main.content == Content::kNotRead || verdict.headersOnly)
        return Sameness::kUntold;
    const bool complete =
        verdict.main.content == Content::kComplete || verdict.safe.content == Content::kComplete;
    return complete && verdict.state != State::kInterrupted ? Sameness::kSame
                                                            : Sameness::kDifferent;
}

std::string VerifyText(const std::vector<StatusRow>& rows, const PackageSet& packages,
                       const Digests& digests) {
    std::string text;
    for (const StatusRow& row : rows) text += CardText(row, digests);
    return text + UnreadableText(packages);
}

std::string VerifyJson(const std::vector<StatusRow>& rows, const PackageSet& packages,
                       const Digests& digests) {
    Json json;
    json["schema"] = "qvcap-verify";
    json["version"] = 1;
    json["packages"] = PackageSetJson(packages);
    json["cards"] = Json::array();
    for (const StatusRow& row : rows) {
        const Verdict& verdict = row.verdict;
        Json entry = CardJson(row.card);
        entry["result"] = SamenessText(SamenessOf(verdict));
        entry["main"] = ImageJson(verdict.main);
        entry["safe"] = ImageJson(verdict.safe);
        entry["package"] = PackageJson(verdict.package);
        if (verdict.package != nullptr) {
            const auto digest = digests.find(verdict.package->name);
            entry["package"]["sha256"] =
                digest == digests.end() ? Json(nullptr) : Json(digest->second);
        }
        entry["state"] = StateText(verdict.state);
        entry["reason"] = verdict.reason;
        json["cards"].push_back(std::move(entry));
    }
    return DumpIndented(json);
}

ExitStatus VerifyStatus(const std::vector<StatusRow>& rows) {
    if (rows.empty()) return ExitStatus::kNoCard;
    if (Any(rows, Sameness::kDifferent) || Any(rows, Sameness::kUntold)) return ExitStatus::kFailed;
    return Any(rows, Sameness::kNoPackage) ? ExitStatus::kNoCard : ExitStatus::kDone;
}

}  // namespace qvo
