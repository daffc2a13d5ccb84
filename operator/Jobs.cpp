// The cards of a run with their packages and plans, and the report about them. Starts nothing and
// writes nothing.
#include "Jobs.h"

#include <algorithm>
#include <ctime>
#include <map>

#include "Escape.h"
#include "StallWatch.h"

namespace qvo {
namespace {

using Contents = std::shared_ptr<const PackageContents>;

// Reads each package once, whatever the order of the cards.
class ContentsKeeper {
  public:
    Contents Of(const FirmwarePackage& package) {
        Contents& kept = m_kept[package.path];
        if (!kept) kept = ReadContents(package);
        return kept;
    }

  private:
    std::map<std::string, Contents> m_kept;
};

std::string WhyUnreadable(const PackageSet& packages) {
    const UnreadablePackage& first = packages.Unreadable().front();
    return qvf::Escaped(first.name) + " cannot be read (" + qvf::Escaped(first.reason) +
           ") and could be for this card: replace or remove it";
}

// No request tells the size of a flash: this reads the last byte of each section instead.
std::string Unreachable(const Card& card, const qvf::Package& package) {
    CardReader reader(card);
    for (size_t i = 0; i < package.sections.size(); ++i) {
        const qvf::Section& section = package.sections[i];
        if (section.size == 0 || section.End() > uint64_t{1} << 32) continue;  // another rule's
        const auto last = static_cast<uint32_t>(section.End() - 1);
        uint8_t byte = 0;
        // Twice: one refused request does not mean the end of the flash.
        if (reader.Read(last, &byte, 1) || reader.Read(last, &byte, 1)) continue;
        return "section " + std::to_string(i + 1) + " ends at " + qvf::HexNumber(last, 8) +
               ", which cannot be read, perhaps beyond the end of the flash (" + reader.Problem() +
               ")";
    }
    return "";
}

// If nothing is written, the plan is the outcome.
Outcome OutcomeOf(Action action) {
    switch (action) {
        case Action::kFlash:
        case Action::kBringBack:
            return Outcome::kPlanned;
        case Action::kLeave:
            return Outcome::kLeft;
        case Action::kSkip:
            return Outcome::kSkipped;
        case Action::kRefuse:
            return Outcome::kRefused;
        case Action::kFail:
            break;
    }
    return Outcome::kFailed;
}

void Plan(Job& job, bool force, const PackageSet& packages) {
    const bool answers = job.card.problem.empty();
    std::string unreachable;
    const bool reads = job.verdict.main.content != Content::kNotRead;
    if (answers && reads && job.contents)
        unreachable = Unreachable(job.card, job.contents->package);
    job.plan = PlanCard(
        {job.card, job.verdict, job.fit, job.contents.get(), job.stored, unreachable}, force);
    if (answers && !packages.Unreadable().empty()) {
        job.plan.action = Action::kRefuse;
        job.plan.reason = WhyUnreadable(packages);
    }
    job.outcome = OutcomeOf(job.plan.action);
    if (!IsToBeFlashed(job)) job.reason = job.plan.reason;
}

// What the run itself would find when the card's turn comes.
void TellUsers(Job& job, bool forceBusy) {
    const std::vector<Process> users = UsersOf(job.card.paths);
    if (users.empty()) return;
    if (forceBusy) {
        job.plan.warnings.push_back("in use by " + ProcessesText(users));
        return;
    }
    job.outcome = Outcome::kBusy;
    job.reason = BusyText(users);
    job.plan.reason += (job.plan.reason.empty() ? "" : "; ") + job.reason;
}

const char* ActionText(Action action) {
    switch (action) {
        case Action::kFlash:
            return "flash";
        case Action::kBringBack:
            return "bring back";
        case Action::kLeave:
            return "left alone";
        case Action::kSkip:
            return "skipped";
        case Action::kRefuse:
            return "refused";
        case Action::kFail:
            break;
    }
    return "failed";
}

// "not_begun"
std::string CountKey(Outcome outcome) {
    std::string key = OutcomeText(outcome);
    std::replace(key.begin(), key.end(), ' ', '_');
    return key;
}

std::string TargetVersion(const Job& job) {
    return job.contents ? qvf::VersionText(job.contents->package.firmwareVersion) : "";
}

std::string PackageName(const Job& job) {
    return job.fit.Only() == nullptr ? "" : job.fit.Only()->name;
}

void Describe(const Job& job, Event& event) {
    event["card"] = job.card.Name();
    event["path"] = job.card.path;
    event["product"] = job.card.product;
    event["serial"] = job.card.serial;
    event["from"] = job.card.identified ? qvf::VersionText(job.card.runningVersion) : "";
    event["to"] = TargetVersion(job);
    event["package"] = PackageName(job);
    event["sha256"] = job.sha256;
    event["state"] = StateText(job.verdict.state);
}

}  // namespace

bool IsToBeFlashed(const Job& job) {
    return job.plan.action == Action::kFlash || job.plan.action == Action::kBringBack;
}

std::vector<Job> MakeJobs(const UpgradeOptions& options, const PackageSet& packages) {
    const PackageSet earlier = options.earlier.empty() ? PackageSet() : PackageSet(options.earlier);
    ContentsKeeper keeper;
    std::map<const PackageContents*, std::string> digests;
    std::vector<Job> jobs;
    for (const Card& card : Selected(FindCards(), options.selection)) {
        Job job;
        job.card = card;
        job.fit = packages.For(card);
        if (!card.problem.empty()) {
            job.verdict.state = State::kUnreadable;
            job.verdict.reason = card.problem;
        } else if (job.fit.Only() != nullptr) {
            job.contents = keeper.Of(*job.fit.Only());
            std::string& digest = digests[job.contents.get()];
            if (digest.empty()) digest = job.contents->Sha256();
            job.sha256 = digest;
            StallWatch watch(options.stalledAfter, TellOnErrors("reading " + card.Name()));
            ReadBack(job, *job.contents, [&watch](uint64_t, uint64_t) { watch.Progress(); });
            for (const FirmwarePackage* package : earlier.For(card).packages)
                job.earlier.push_back({package->name, keeper.Of(*package)});
        } else {
            job.verdict.state = State::kNoPackage;
        }
        Plan(job, options.force, packages);
        if (options.dryRun && IsToBeFlashed(job)) TellUsers(job, options.forceBusy);
        jobs.push_back(std::move(job));
    }
    return jobs;
}

ExitStatus StatusOf(const std::vector<Job>& jobs) {
    const auto any = [&](auto... outcomes) {
        return std::any_of(jobs.begin(), jobs.end(),
                           [&](const Job& job) { return ((job.outcome == outcomes) || ...); });
    };
    if (any(Outcome::kFailed, Outcome::kRefused, Outcome::kNotBegun)) return ExitStatus::kFailed;
    if (any(Outcome::kBusy)) return ExitStatus::kBusy;
    if (any(Outcome::kDone, Outcome::kPlanned)) return ExitStatus::kDone;
    return any(Outcome::kLeft) ? ExitStatus::kNothingToDo : ExitStatus::kNoCard;
}

Event PlanEvent(const Job& job) {
    Event event;
    event["event"] = "plan";
    event["time"] = TimeText(std::time(nullptr));
    Describe(job, event);
    event["action"] = ActionText(job.plan.action);
    event["mode"] = job.contents ? ModeText(job.plan.mode) : "";
    event["force"] = job.plan.force;
    event["erase"] = job.plan.work.erase;
    event["write"] = job.plan.work.write;
    event["verify"] = job.plan.work.verify;
    event["reason"] = job.plan.reason;
    event["warnings"] = job.plan.warnings;
    return event;
}

Event EndEvent(const std::vector<Job>& jobs, ExitStatus status) {
    std::map<Outcome, unsigned> counts;
    Event cards = Event::array();
    for (const Job& job : jobs) {
        ++counts[job.outcome];
        Event card;
        Describe(job, card);
        card["result"] = OutcomeText(job.outcome);
        card["reason"] = job.reason;
        card["attempts"] = job.attempts;
        card["tool_result"] = ResultText(job.tool.result);
        card["tool_message"] = job.tool.lastWords;
        card["tool_output"] = job.toolFile;
        cards.push_back(std::move(card));
    }
    Event event;
    event["event"] = "end";
    event["time"] = TimeText(std::time(nullptr));
    for (const Outcome outcome :
         {Outcome::kDone, Outcome::kFailed, Outcome::kRefused, Outcome::kBusy, Outcome::kLeft,
          Outcome::kSkipped, Outcome::kNotBegun, Outcome::kPlanned})
        event[CountKey(outcome)] = counts[outcome];
    event["exit_status"] = Number(status);
    for (const ExitStatusRow& row : kExitStatuses)
        if (row.status == status) event["meaning"] = row.name;
    event["cards"] = std::move(cards);
    return event;
}

HistoryEntry EntryOf(const Job& job, const std::string& run, const std::string& who) {
    HistoryEntry entry;
    entry.time = TimeText(std::time(nullptr));
    entry.run = run;
    entry.who = who;
    entry.card = job.card.Name();
    entry.product = job.card.product;
    entry.serial = job.card.serial;
    entry.from = qvf::VersionText(job.card.runningVersion);
    entry.to = TargetVersion(job);
    entry.result = OutcomeText(job.outcome);
    entry.reason = job.reason;
    entry.package = PackageName(job);
    entry.sha256 = job.sha256;
    entry.attempts = job.attempts;
    entry.message = job.tool.lastWords;
    return entry;
}

}  // namespace qvo
