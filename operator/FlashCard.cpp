// The work on one card: attempts, reading back, repair. Flash is written only by the tool that it
// starts; which cards are worked on is decided in Plan.cpp.
#include "FlashCard.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <new>

#include "Backup.h"
#include "Escape.h"
#include "Files.h"
#include "History.h"

namespace qvo {
namespace {

constexpr size_t kTail = 400;  // bytes; a progress line is shorter
constexpr uint64_t kMostOutput = uint64_t{4} * 1024 * 1024;
constexpr int kLookEvery = 100;  // milliseconds

std::string Text(const qvf::Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

// The end of the output, and its total length.
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
        case Outcome::kPlanned:
            return "planned";
        case Outcome::kDone:
            return "done";
        case Outcome::kFailed:
            return "failed";
        case Outcome::kRefused:
            return "refused";
        case Outcome::kBusy:
            return "busy";
        case Outcome::kLeft:
            return "left";
        case Outcome::kSkipped:
            return "skipped";
        case Outcome::kNotBegun:
            return "not begun";
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
        m_job.outcome = Outcome::kFailed;
        m_job.reason = mistake.what();
    } catch (const std::bad_alloc&) {
        m_job.outcome = Outcome::kFailed;
        m_job.reason = "there is not enough memory";
    }
    TellEnd();
}

void FlashCard::TryUntilDone() {
    const std::vector<Process> users = m_means.tools->OthersWith(m_job.card.paths);
    if (!users.empty() && !m_means.forceBusy) {
        m_job.outcome = Outcome::kBusy;
        m_job.reason = BusyText(users);
        return;
    }
    if (!m_means.backup.empty()) BackUp();
    const PackageContents& contents = *m_job.contents;
    for (int attempt = 0; attempt <= m_means.retries; ++attempt) {
        const Mode mode = ModeOf(contents.package, m_job.stored, m_job.card.runningVersion);
        const std::string refusal = Refusal(contents.package, m_job.card, mode);
        if (!refusal.empty()) {
            m_job.outcome = attempt == 0 ? Outcome::kRefused : Outcome::kFailed;
            m_job.reason = refusal;
            return;
        }
        if (attempt > 0) {
            Event event = CardEvent("retry", m_job.card);
            event["reason"] = m_job.reason;
            m_means.sink(event);
        }
        const bool trapped = mode == Mode::kSafe && IsMainUnfinished(m_job.verdict);
        if (trapped && BringBack()) return;
        if (Attempt(m_job.contents, mode, m_job.plan.force) && !trapped) return;
        if (!trapped) continue;
        m_job.outcome = Outcome::kFailed;
        m_job.reason = Advice();
        return;
    }
}

// An image that cannot be saved is not overwritten: that is a Mistake. Without a valid header there
// is nothing to lose.
void FlashCard::BackUp() {
    ExpectSameCard("nothing was saved or written");
    StallWatch watch(m_means.stalledAfter, TellOfStall(getpid()));
    Backup backup =
        BackUpCard(m_job.card, m_means.backup, [&watch](uint64_t, uint64_t) { watch.Progress(); });
    const bool unfinished = IsMainUnfinished(m_job.verdict);
    Event event = CardEvent("backup", m_job.card);
    event["images"] = Event::array();
    for (const SavedImage& image : backup.images) {
        event["images"].push_back({{"image", image.safe ? "safe" : "main"},
                                   {"version", qvf::VersionText(image.version)},
                                   {"file", image.path},
                                   {"sha256", image.sha256}});
        if (image.safe) continue;
        if (unfinished) {
            backup.notes.push_back("the main image is unfinished, and was saved so");
            continue;
        }
        // The package that the card had before can repair an unfinished main image.
        const FirmwarePackage saved{image.path, image.path,
                                    qvf::ReadPackage(image.path, qvf::Read::kHeader)};
        m_job.earlier.push_back({image.path, ReadContents(saved)});
    }
    event["notes"] = backup.notes;
    m_means.sink(event);
}

// A package with another code makes the next upgrade a normal one again. False when there is none,
// or when it did not help.
bool FlashCard::BringBack() {
    for (const EarlierPackage& earlier : m_job.earlier) {
        const qvf::Package& package = earlier.contents->package;
        const bool helps =
            package.compatibilityCode != m_job.contents->package.compatibilityCode &&
            ModeOf(package, m_job.stored, m_job.card.runningVersion) == Mode::kNormal &&
            Refusal(package, m_job.card, Mode::kNormal).empty();
        if (!helps) continue;
        Event event = CardEvent("bring-back", m_job.card);
        event["package"] = earlier.name;
        event["to"] = qvf::VersionText(package.firmwareVersion);
        m_means.sink(event);
        if (!Attempt(earlier.contents, Mode::kNormal, true)) continue;
        ReadBack(m_job, *m_job.contents);
        const Mode mode = ModeOf(m_job.contents->package, m_job.stored, m_job.card.runningVersion);
        if (mode == Mode::kNormal && Attempt(m_job.contents, mode, m_job.plan.force)) return true;
    }
    return false;
}

std::string FlashCard::Advice() const {
    const uint16_t code = m_job.contents->package.compatibilityCode;
    return "its main image is unfinished, and every further upgrade with this package is a safe "
           "one, "
           "which leaves it so. Leave the computer on; put the package that the card had before, "
           "or "
           "another one for it whose compatibility code is neither 0 nor " +
           std::to_string(code) + ", into a folder and run: qvcap upgrade --device " +
           m_job.card.path + " --packages FOLDER_OF_THE_NEW --earlier THAT_FOLDER";
}

bool FlashCard::Attempt(const std::shared_ptr<const PackageContents>& chosen, Mode mode,
                        bool force) {
    ExpectSameCard("this attempt was not begun");
    ++m_job.attempts;
    const PackageContents& contents = *chosen;
    const std::string folder = m_means.packages->FolderOf(chosen);
    // With the path: several boards may have the same number.
    std::string name = m_job.card.Name() + m_job.card.path;
    std::replace(name.begin(), name.end(), ':', '-');
    std::replace(name.begin(), name.end(), '/', '-');
    m_job.toolFile = m_means.folder + "/tool-" + m_means.run + "-" + name + "-" +
                     std::to_string(m_job.attempts) + ".log";
    ChildPlan plan{m_means.tool, {"-y"}, folder, m_job.toolFile, m_means.lock};
    if (force) plan.arguments.push_back("-f");
    plan.arguments.insert(plan.arguments.end(), {"-d", m_job.card.path});
    ChildEnd end;
    {
        const std::unique_ptr<Child> tool = m_means.tools->Start(plan);
        Child& child = *tool;
        Event event = CardEvent("card-begin", m_job.card);
        event["attempt"] = m_job.attempts;
        event["mode"] = ModeText(mode);
        event["from"] = qvf::VersionText(m_job.card.runningVersion);
        event["to"] = qvf::VersionText(contents.package.firmwareVersion);
        event["bytes"] = WorkOf(contents.package, mode).write;
        event["process"] = child.Number();
        event["output"] = m_job.toolFile;
        m_means.sink(event);
        Watch(child, m_job.toolFile);
        end = *child.Poll();
        m_means.tools->Forget(child);
    }
    m_job.tool = ParseToolOutput(Output(m_job.toolFile));
    Event event = CardEvent("tool-end", m_job.card);
    event["result"] = ResultText(m_job.tool.result);
    event["status"] = end.status;
    event["signal"] = end.signal;
    event["message"] = m_job.tool.lastWords;
    m_means.sink(event);
    Judge(contents, mode);
    const std::string ending = EndText(end);
    if (m_job.outcome == Outcome::kFailed && !ending.empty())
        m_job.reason += " (qvcap-upgrade was " + ending + ")";
    return m_job.outcome == Outcome::kDone;
}

void FlashCard::Watch(Child& child, const std::string& output) {
    using Clock = std::chrono::steady_clock;
    const StallWatch::Tell tell = TellOfStall(child.Number());
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
            Event event = CardEvent(stageBegins ? "stage" : "progress", m_job.card);
            event["stage"] = StageText(progress.stage);
            event["percent"] = progress.percent;
            m_means.sink(event);
        }
        const auto still = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - changed);
        const int seconds = static_cast<int>(still.count());
        if (seconds < m_means.stalledAfter * (told + 1)) continue;
        ++told;
        tell(seconds);
    }
}

// Tells that nothing comes from a process of this run.
StallWatch::Tell FlashCard::TellOfStall(pid_t process) const {
    return [this, process](int seconds) {
        Event event = CardEvent("stalled", m_job.card);
        event["seconds"] = seconds;
        event["process"] = process;
        m_means.sink(event);
    };
}

// A node may get another card at any time: a driver is loaded again, a card is plugged again. Then
// nothing more is done: a Mistake.
void FlashCard::ExpectSameCard(const char* meaning) const {
    const std::string problem = WhyNotThere(m_job.card);
    if (!problem.empty()) throw qvf::Mistake(problem + "; " + meaning);
}

void FlashCard::Judge(const PackageContents& contents, Mode mode) {
    Event event = CardEvent("stage", m_job.card);
    event["stage"] = "reading back";
    event["percent"] = 0;
    m_means.sink(event);
    m_job.verdict.state = State::kUnknown;
    ExpectSameCard("qvcap-upgrade may have written to it: compare both with qvcap verify");
    using Clock = std::chrono::steady_clock;
    unsigned last = 0;
    Clock::time_point shown = Clock::now();
    StallWatch watch(m_means.stalledAfter, TellOfStall(getpid()));
    ReadBack(m_job, contents, [&](uint64_t done, uint64_t total) {
        watch.Progress();
        const unsigned percent = total == 0 ? 0 : static_cast<unsigned>(done * 100 / total);
        if (percent == last || Clock::now() - shown < std::chrono::milliseconds(kLookEvery)) return;
        last = percent;
        shown = Clock::now();
        Event progress = CardEvent("progress", m_job.card);
        progress["stage"] = "reading back";
        progress["percent"] = percent;
        m_means.sink(progress);
    });
    const State state = m_job.verdict.state;
    const bool good = IsComplete(m_job.verdict, mode) && state != State::kInterrupted &&
                      state != State::kUnreadable;
    m_job.outcome = good ? Outcome::kDone : Outcome::kFailed;
    m_job.reason = good ? "" : m_job.verdict.reason;
    if (good) return;
    if (m_job.reason.empty()) m_job.reason = "the flash does not hold the package";
    m_job.reason += std::string(" (qvcap-upgrade says: ") + ResultText(m_job.tool.result) + ")";
}

void FlashCard::TellEnd() {
    Event event = CardEvent("card-end", m_job.card);
    event["result"] = OutcomeText(m_job.outcome);
    event["state"] = StateText(m_job.verdict.state);
    event["reason"] = m_job.reason;
    event["attempts"] = m_job.attempts;
    m_means.sink(event);
}

}  // namespace qvo
