// Decides what is done to a card. Pure: the data was read before, and nothing is written here.
#include "Plan.h"

#include <algorithm>
#include <string_view>

#include "Escape.h"

namespace qvo {
namespace {

constexpr uint16_t kNeverSafe = 1;
constexpr size_t kCodeAt = 8;
constexpr size_t kVersionAt = 16;

std::string PackageName(const Findings& findings) {
    const FirmwarePackage* package = findings.fit.Only();
    return package == nullptr ? "" : qvf::Escaped(package->name);
}

bool HasData(const qvf::Package& package, Mode mode) {
    return std::any_of(package.sections.begin(), package.sections.end(), [&](const auto& section) {
        return TakesPart(section, mode) && !section.IsClear() && section.size > 0;
    });
}

// Rules about images depend on the mode, and are checked separately.
bool IsAboutImages(const qvf::Rule& rule) {
    const std::string name = rule.name;
    return name == qvf::kNoUpgradeSection.name || name == qvf::kNoMainSection.name ||
           name == qvf::kUpgradeOnly.name || name == qvf::kCompatibilityZero.name;
}

// What is behind the data of a saved image is meant.
bool IsTheMark(const qvf::Package& package, const qvf::Rule& rule) {
    return rule.name == std::string_view(qvf::kTrailingBytes.name) &&
           (package.trailing == SavedFromMark(false) || package.trailing == SavedFromMark(true));
}

std::vector<qvf::Finding> FindingsOf(const qvf::Package& package, const Card& card) {
    qvf::FlashLayout layout;
    layout.firmwareArea = card.firmwareOffset;
    return qvf::CheckPackage(package, layout);
}

std::vector<std::string> WarningsOf(const qvf::Package& package, const Card& card) {
    std::vector<std::string> warnings;
    for (const qvf::Finding& finding : FindingsOf(package, card))
        if (finding.rule.level == qvf::Level::kWarning && !IsAboutImages(finding.rule) &&
            !IsTheMark(package, finding.rule))
            warnings.push_back(finding.message);
    return warnings;
}

std::string FitsTwice(const Fit& fit) {
    std::string names;
    for (const FirmwarePackage* package : fit.packages)
        names += (names.empty() ? "" : ", ") + qvf::Escaped(package->name) + " (" +
                 qvf::VersionText(package->Version()) + ")";
    return "more than one package fits: " + names + "; leave only the one that is meant";
}

// Without a package to write: kFail, kRefuse or kSkip, with the reason.
CardPlan WithoutPackage(const Findings& findings) {
    CardPlan plan;
    if (!findings.card.problem.empty()) {
        plan.action = Action::kFail;
        plan.reason = findings.card.problem;
    } else if (findings.fit.IsAmbiguous()) {
        plan.action = Action::kRefuse;
        plan.reason = FitsTwice(findings.fit);
    } else {
        plan.action = Action::kSkip;
        plan.reason = "no package fits";
    }
    return plan;
}

// Why a card that could be flashed is left alone; empty when it will be flashed.
std::string ReasonToLeave(const Findings& findings) {
    const uint32_t offered = findings.contents->package.firmwareVersion;
    switch (findings.verdict.state) {
        case State::kCurrent:
            return "current";
        case State::kStaged:
            return "staged already, waits for the power to go";
        case State::kUpgradeAvailable:
        case State::kInterrupted:
        case State::kNoPackage:
            return "";
        case State::kUnknown:
        case State::kUnreadable:
            break;
    }
    if (findings.card.runningVersion < offered) return "";
    return "runs " + qvf::VersionText(findings.card.runningVersion) + ", " + PackageName(findings) +
           " is " + qvf::VersionText(offered);
}

}  // namespace

const char* ModeText(Mode mode) { return mode == Mode::kSafe ? "safe upgrade" : "upgrade"; }

StoredHeader ParseStoredHeader(const qvf::Bytes& bytes) {
    const auto at = [&](size_t i) { return uint32_t{i < bytes.size() ? bytes[i] : uint8_t{0}}; };
    StoredHeader stored;
    stored.compatibilityCode = static_cast<uint16_t>(at(kCodeAt) | at(kCodeAt + 1) << 8);
    for (size_t i = 0; i < 4; ++i) stored.version |= at(kVersionAt + i) << (8 * i);
    return stored;
}

Mode ModeOf(const qvf::Package& package, const StoredHeader& stored, uint32_t running) {
    const uint16_t reference = stored.version == running ? stored.compatibilityCode : uint16_t{0};
    const bool safe =
        package.compatibilityCode == reference && package.compatibilityCode != kNeverSafe;
    return safe ? Mode::kSafe : Mode::kNormal;
}

bool TakesPart(const qvf::Section& section, Mode mode) {
    return section.ForUpgradeImage() == (mode == Mode::kSafe);
}

Work WorkOf(const qvf::Package& package, Mode mode) {
    Work work;
    work.erase = work.write = package.HeaderLength();
    for (const qvf::Section& section : package.sections) {
        if (!TakesPart(section, mode)) continue;
        work.erase += section.size;
        if (!section.IsClear()) work.write += section.size;
    }
    work.verify = work.write;
    return work;
}

std::string Refusal(const qvf::Package& package, const Card& card, Mode mode) {
    if (package.compatibilityCode == 0)
        return "its compatibility code is 0: an upgrade that fails could not be repeated; it needs "
               "another code";
    if (!HasData(package, mode))
        return std::string("it has no section for ") + (mode == Mode::kSafe ? "a" : "an") + " " +
               ModeText(mode) + ", which this card would get: only a header would be written";
    const std::string none = WhyNoImage(package, mode == Mode::kSafe);
    if (!none.empty())
        return none + ", but this card would get " + (mode == Mode::kSafe ? "a" : "an") + " " +
               ModeText(mode);
    for (const qvf::Finding& finding : FindingsOf(package, card))
        if (finding.rule.level == qvf::Level::kError && !IsAboutImages(finding.rule))
            return finding.message;
    return "";
}

bool IsMainUnfinished(const Verdict& verdict) {
    const Content content = verdict.main.content;
    return content == Content::kBlank || content == Content::kDamaged ||
           content == Content::kPartial;
}

bool IsComplete(const Verdict& verdict, Mode mode) {
    const Image& image = mode == Mode::kSafe ? verdict.safe : verdict.main;
    return image.content == Content::kComplete;
}

CardPlan PlanCard(const Findings& findings, bool force) {
    if (!findings.card.problem.empty() || findings.contents == nullptr)
        return WithoutPackage(findings);
    CardPlan plan;
    const qvf::Package& package = findings.contents->package;
    const uint32_t running = findings.card.runningVersion;
    plan.warnings = WarningsOf(package, findings.card);
    plan.mode = ModeOf(package, findings.stored, running);
    plan.work = WorkOf(package, plan.mode);
    plan.force = running >= package.firmwareVersion;
    plan.reason = findings.verdict.reason;
    if (!findings.unreachable.empty()) {
        plan.action = Action::kRefuse;
        plan.reason = PackageName(findings) + ": " + findings.unreachable;
        return plan;
    }
    if (findings.verdict.state == State::kUnreadable) {
        plan.action = Action::kFail;
        return plan;
    }
    const bool trapped = plan.mode == Mode::kSafe && IsMainUnfinished(findings.verdict);
    if (findings.verdict.state == State::kUnknown && running == package.firmwareVersion && !force) {
        plan.action = Action::kFail;
        plan.reason += "; --force writes the package";
        return plan;
    }
    const std::string leave = ReasonToLeave(findings);
    if (!leave.empty() && !force && !trapped) {
        plan.action = Action::kLeave;
        plan.reason = leave;
        return plan;
    }
    const std::string refusal = Refusal(package, findings.card, plan.mode);
    if (!refusal.empty()) {
        plan.action = Action::kRefuse;
        plan.reason = PackageName(findings) + ": " + refusal;
        return plan;
    }
    plan.action = trapped ? Action::kBringBack : Action::kFlash;
    if (trapped) plan.reason = "the main image is unfinished, and a safe upgrade would leave it so";
    return plan;
}

}  // namespace qvo
