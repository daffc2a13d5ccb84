#include "FlashCard.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <new>

#include "BusyCards.h"
#include "Escape.h"
#include "Files.h"
#include "History.h"
#include "PrivateFolder.h"

namespace qvo {
namespace {

constexpr size_t kTail = 400;  // bytes; a progress line has fewer
constexpr uint64_t kMostOutput = 4 * 1024 * 1024;
constexpr int kLookEvery = 100;  // milliseconds

std::string Text(const qvf::Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

// The end of the output, and how long all of it is.
std::string Tail(const std::string& path, uint64_t* length) {
    std::string text(kTail, '\0');
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    struct stat status = {};
    fstat(fd, &status);
    *length = static_cast<uint64_t>(status.st_size);
    const off_t from = std::max<off_t>(0, status.st_size - static_cast<off_t>(kTail));
    const ssize_t n = pread(fd, text.data(), text.size(), from);
    close(fd);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

// The whole output, or its beginning and its end.
std::string Output(const std::string& path) {
    qvf::InputFile file(path);
    if (file.Left() <= kMostOutput) return Text(file.Take(file.Left()));
    const std::string begin = Text(file.Take(kMostOutput / 2));
    file.Skip(file.Left() - kMostOutput / 2);
    return begin + Text(file.Take(kMostOutput / 2));
}

std::string EndText(const ChildEnd& end) {
    if (end.signal != 0) return "ended by signal " + std::to_string(end.signal);
    return end.status == 0 ? "" : "ended with status " + std::to_string(end.status);
}

}  // namespace

const char* OutcomeText(Outcome outcome) {
    switch (outcome) {
        case Outcome::kPlanned: return "planned";
        case Outcome::kDone: return "done";
        case Outcome::kFailed: return "failed";
        case Outcome::kRefused: return "refused";
        case Outcome::kBusy: return "busy";
        case Outcome::kLeft: return "left";
        case Outcome::kSkipped: return "skipped";
        case Outcome::kNotBegun: return "not begun";
    }
    return "planned";
}

Event CardEvent(const std::string& kind, const Card& card) {
    Event event;
    event["event"] = kind;
    event["time"] = TimeText(std::time(nullptr));
    event["card"] = card.Name();
    return event;
}

void ReadBack(Job& job, const PackageContents& contents, const Progress& progress) {
    CardReader reader(job.card);
    const FlashSource source = [&](uint32_t address, uint8_t* buffer, uint32_t size) {
        return reader.Read(address, buffer, size);
    };
    const FirmwarePackage* package = job.fit.Only();
    job.verdict = JudgeFlash(job.card, source, &contents, Depth::kSections, progress);
    job.verdict.package = package;
    qvf::Bytes fixedPart(qvf::kFixedLength);
    if (reader.Problem().empty() &&
        reader.Read(job.card.firmwareOffset, fixedPart.data(), qvf::kFixedLength))
        job.stored = ParseStoredHeader(fixedPart);
    if (reader.Problem().empty()) return;
    job.verdict.state = State::kUnreadable;
    job.verdict.reason = reader.Problem();
}

void FlashCard::Run() {
    try {
        TryUntilDone();
    } catch (const qvf::Mistake& mistake) {
        job_.outcome = Outcome::kFailed;
        job_.reason = mistake.what();
    } catch (const std::bad_alloc&) {
        job_.outcome = Outcome::kFailed;
        job_.reason = "there is not enough memory";
    }
    TellEnd();
}

void FlashCard::TryUntilDone() {
    const std::vector<Process> users = UsersOf(job_.card.paths);
    if (!users.empty() && !means_.forceBusy) {
        job_.outcome = Outcome::kBusy;
        job_.reason = "in use by " + ProcessesText(users) + "; end that, or use --force-busy";
        return;
    }
    const PackageContents& contents = *job_.contents;
    for (int attempt = 0; attempt <= means_.retries; ++attempt) {
        const Mode mode = ModeOf(contents.package, job_.stored, job_.card.runningVersion);
        const std::string refusal = Refusal(contents.package, job_.card, mode);
        if (!refusal.empty()) {
            job_.outcome = attempt == 0 ? Outcome::kRefused : Outcome::kFailed;
            job_.reason = refusal;
            return;
        }
        if (attempt > 0) {
            Event event = CardEvent("retry", job_.card);
            event["reason"] = job_.reason;
            means_.sink(event);
        }
        const bool trapped = mode == Mode::kSafe && IsMainUnfinished(job_.verdict);
        if (trapped && BringBack()) return;
        if (Attempt(contents, mode, job_.plan.force) && !trapped) return;
        if (!trapped) continue;
        job_.outcome = Outcome::kFailed;
        job_.reason = Advice();
        return;
    }
}

// A package with another code makes the next upgrade a normal one again. False when there is none,
// or it did not help.
bool FlashCard::BringBack() {
    for (const EarlierPackage& earlier : job_.earlier) {
        const qvf::Package& package = earlier.contents->package;
        const bool helps =
            package.compatibilityCode != job_.contents->package.compatibilityCode &&
            ModeOf(package, job_.stored, job_.card.runningVersion) == Mode::kNormal &&
            Refusal(package, job_.card, Mode::kNormal).empty();
        if (!helps) continue;
        Event event = CardEvent("bring-back", job_.card);
        event["package"] = earlier.name;
        event["to"] = qvf::VersionText(package.firmwareVersion);
        means_.sink(event);
        if (!Attempt(*earlier.contents, Mode::kNormal, true)) continue;
        ReadBack(job_, *job_.contents);
        const Mode mode =
            ModeOf(job_.contents->package, job_.stored, job_.card.runningVersion);
        if (mode == Mode::kNormal && Attempt(*job_.contents, mode, job_.plan.force)) return true;
    }
    return false;
}

std::string FlashCard::Advice() const {
    const uint16_t code = job_.contents->package.compatibilityCode;
    return "its main image is unfinished, and every further upgrade with this package is a safe one, "
           "which leaves it so. Leave the computer on; put the package that the card had before, or "
           "another one for it whose compatibility code is neither 0 nor " +
           std::to_string(code) + ", into a folder and run: qvcap upgrade --device " +
           job_.card.path + " --packages FOLDER_OF_THE_NEW --earlier THAT_FOLDER";
}

bool FlashCard::Attempt(const PackageContents& contents, Mode mode, bool force) {
    ++job_.attempts;
    const PrivateFolder folder(means_.folder, qvf::Serialize(contents.package));
    std::string name = job_.card.Name();
    std::replace(name.begin(), name.end(), ':', '-');
    std::replace(name.begin(), name.end(), '/', '-');
    job_.toolFile = means_.folder + "/tool-" + means_.run + "-" + name + "-" +
                    std::to_string(job_.attempts) + ".log";
    ChildPlan plan{means_.tool, {"-y"}, folder.Path(), job_.toolFile, means_.lock};
    if (force) plan.arguments.push_back("-f");
    plan.arguments.insert(plan.arguments.end(), {"-d", job_.card.path});
    ChildEnd end;
    {
        Child child(plan);
        Event event = CardEvent("card-begin", job_.card);
        event["attempt"] = job_.attempts;
        event["mode"] = ModeText(mode);
        event["from"] = qvf::VersionText(job_.card.runningVersion);
        event["to"] = qvf::VersionText(contents.package.firmwareVersion);
        event["bytes"] = WorkOf(contents.package, mode).write;
        event["process"] = child.Number();
        event["output"] = job_.toolFile;
        means_.sink(event);
        Watch(child, job_.toolFile);
        end = *child.Poll();
    }
    job_.tool = ParseToolOutput(Output(job_.toolFile));
    Event event = CardEvent("tool-end", job_.card);
    event["result"] = ResultText(job_.tool.result);
    event["status"] = end.status;
    event["signal"] = end.signal;
    event["message"] = job_.tool.lastWords;
    means_.sink(event);
    Judge(contents, mode);
    const std::string ending = EndText(end);
    if (job_.outcome == Outcome::kFailed && !ending.empty())
        job_.reason += " (qvcap-upgrade was " + ending + ")";
    return job_.outcome == Outcome::kDone;
}

void FlashCard::Watch(Child& child, const std::string& output) {
    using Clock = std::chrono::steady_clock;
    ToolProgress last;
    uint64_t length = 0;
    Clock::time_point changed = Clock::now();
    int told = 0;
    while (!child.WaitFor(kLookEvery)) {
        uint64_t now = length;
        const ToolProgress progress = LastProgress(Tail(output, &now));
        if (now != length) {
            length = now;
            changed = Clock::now();
            told = 0;
        }
        const bool stageBegins = progress.stage != last.stage;
        if (progress.stage != ToolStage::kNone &&
            (stageBegins || progress.percent != last.percent)) {
            last = progress;
            Event event = CardEvent(stageBegins ? "stage" : "progress", job_.card);
            event["stage"] = StageText(progress.stage);
            event["percent"] = progress.percent;
            means_.sink(event);
        }
        const auto still = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - changed);
        const int seconds = static_cast<int>(still.count());
        if (seconds < means_.stalledAfter * (told + 1)) continue;
        ++told;
        Event event = CardEvent("stalled", job_.card);
        event["seconds"] = seconds;
        event["process"] = child.Number();
        means_.sink(event);
    }
}

void FlashCard::Judge(const PackageContents& contents, Mode mode) {
    Event event = CardEvent("stage", job_.card);
    event["stage"] = "reading back";
    event["percent"] = 0;
    means_.sink(event);
    unsigned last = 0;
    ReadBack(job_, contents, [&](uint64_t done, uint64_t total) {
        const unsigned percent = total == 0 ? 0 : static_cast<unsigned>(done * 100 / total);
        if (percent == last) return;
        last = percent;
        Event progress = CardEvent("progress", job_.card);
        progress["stage"] = "reading back";
        progress["percent"] = percent;
        means_.sink(progress);
    });
    const State state = job_.verdict.state;
    const bool good = IsComplete(job_.verdict, mode) && state != State::kInterrupted &&
                      state != State::kUnreadable;
    job_.outcome = good ? Outcome::kDone : Outcome::kFailed;
    job_.reason = good ? "" : job_.verdict.reason;
    if (!good && job_.reason.empty())
        job_.reason = "the flash does not hold the package";
}

void FlashCard::TellEnd() {
    Event event = CardEvent("card-end", job_.card);
    event["result"] = OutcomeText(job_.outcome);
    event["state"] = StateText(job_.verdict.state);
    event["reason"] = job_.reason;
    event["attempts"] = job_.attempts;
    means_.sink(event);
}

}  // namespace qvo
