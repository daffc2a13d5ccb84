// A run from the lock to the report: signals, threads, events. The work on one card is in
// FlashCard.cpp.
#include "Upgrade.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

#include "Inhibitor.h"
#include "Jobs.h"
#include "Library.h"
#include "PrivateFolder.h"
#include "Program.h"

namespace qvo {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMostToolFiles = 500;
constexpr int kWake = SIGUSR1;  // from a lane to the thread that waits for signals

// From here on only KILL ends this process before its cards are done: HUP and PIPE are ignored, INT
// and TERM are received by waiting. Signals that were ignored before stay ignored.
class Signals {
  public:
    Signals() {
        sigemptyset(&m_awaited);
        sigaddset(&m_awaited, kWake);
        for (const int signal : {SIGINT, SIGTERM})
            if (!IsIgnored(signal)) sigaddset(&m_awaited, signal);
        pthread_sigmask(SIG_BLOCK, &m_awaited, nullptr);
        std::signal(SIGHUP, SIG_IGN);
        std::signal(SIGPIPE, SIG_IGN);
    }
    // The next signal, kWake included.
    int Wait() const {
        int signal = 0;
        while (sigwait(&m_awaited, &signal) != 0) {
        }
        return signal;
    }

  private:
    static bool IsIgnored(int signal) {
        struct sigaction action;
        return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
    }
    sigset_t m_awaited;
};

// Upgrades the boards of a run, several at once; never two flashes of one board.
class Lanes {
  public:
    using Work = std::function<void(Job&)>;

    Lanes(std::vector<Job>& jobs, const UpgradeOptions& options, Work work)
        : m_options(options), m_work(std::move(work)) {
        std::map<int, size_t> boards;
        for (Job& job : jobs) {
            if (!IsToBeFlashed(job)) continue;
            const auto [at, isNew] = boards.try_emplace(job.card.board, m_boards.size());
            if (isNew) m_boards.emplace_back();
            m_boards[at->second].push_back(&job);
        }
    }

    // `stopping` is called for the first signal that ends the run.
    void Run(const Signals& signals, const std::function<void(int)>& stopping) {
        const size_t count = std::min<size_t>(m_boards.size(), static_cast<size_t>(m_options.jobs));
        std::vector<std::thread> threads;
        m_working = count;
        for (size_t i = 0; i < count; ++i) {
            try {
                threads.emplace_back([this] { Lane(); });
            } catch (const std::system_error&) {
                if (threads.empty()) throw;
                m_working -= count - i;  // the others do the work
                break;
            }
        }
        bool told = false;
        while (m_working > 0) {
            const int signal = signals.Wait();
            if (signal == kWake || told) continue;
            told = true;
            m_stop = true;
            stopping(signal);
        }
        for (std::thread& thread : threads) thread.join();
        for (const std::vector<Job*>& board : m_boards)
            for (Job* job : board)
                if (job->outcome == Outcome::kPlanned) {
                    job->outcome = Outcome::kNotBegun;
                    job->reason = "the run was ended before";
                }
    }

  private:
    void Lane() {
        for (size_t i = m_next++; i < m_boards.size() && !m_stop; i = m_next++)
            for (Job* job : m_boards[i]) {
                if (m_stop) break;
                m_work(*job);
                const bool failed = job->outcome != Outcome::kDone;
                if (failed && m_options.stopOnFailure) m_stop = true;
            }
        --m_working;
        kill(getpid(), kWake);
    }

    const UpgradeOptions& m_options;
    const Work m_work;
    std::vector<std::vector<Job*>> m_boards;
    std::atomic<size_t> m_next = 0;
    std::atomic<size_t> m_working = 0;
    std::atomic<bool> m_stop = false;
};

std::string RunName() {
    std::string name = TimeText(std::time(nullptr)) + "-" + std::to_string(getpid());
    std::erase(name, ':');
    return name;
}

Event Notice(const std::string& message) {
    Event event;
    event["event"] = "notice";
    event["time"] = TimeText(std::time(nullptr));
    event["message"] = message;
    return event;
}

// Keeps the newest outputs of the tool.
void RemoveOldToolFiles(const std::string& folder) {
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error))
        if (at->path().filename().string().starts_with("tool-")) files.push_back(at->path());
    std::sort(files.begin(), files.end());
    for (size_t i = 0; i + kMostToolFiles < files.size(); ++i) fs::remove(files[i], error);
}

// One run, from the lock to the report.
class Run {
  public:
    Run(const UpgradeOptions& options, std::ostream& out)
        : m_options(options), m_display(options.look, out), m_name(RunName()) {}

    ExitStatus Go() {
        MachineLock lock(m_options.lock);
        if (!lock.Take() && !WaitFor(lock)) return ExitStatus::kBusy;
        const PackageSet packages(m_options.packages);
        Begin();
        const Library library;
        m_jobs = MakeJobs(m_options, packages);
        for (const Job& job : m_jobs) Tell(PlanEvent(job));
        const std::string choice = m_options.selection.Text();
        if (m_jobs.empty()) Tell(Notice("no card was found" + choice));
        const bool any = std::any_of(m_jobs.begin(), m_jobs.end(), IsToBeFlashed);
        if (any && !m_options.dryRun) Flash(lock.Descriptor());
        const ExitStatus status = StatusOf(m_jobs);
        Tell(EndEvent(m_jobs, status));
        return status;
    }

  private:
    void Tell(const Event& event) { m_display.Take(event); }

    bool WaitFor(MachineLock& lock) {
        const std::string who = lock.HoldersText() + " is at work";
        if (!m_options.wait) {
            Tell(Notice(who + "; nothing was done. --wait waits for its end"));
            return false;
        }
        Tell(Notice(who + "; its end is waited for"));
        lock.Wait();
        return true;
    }

    void Begin() {
        Event event;
        event["event"] = "begin";
        event["time"] = TimeText(std::time(nullptr));
        event["schema"] = "qvcap-upgrade";
        event["version"] = 1;
        event["run"] = m_name;
        event["who"] = m_who;
        event["packages"] = m_options.packages;
        event["dry_run"] = m_options.dryRun;
        Tell(event);
    }

    void Flash(int lock) {
        const HistoryLog history(m_options.log);
        PrivateFolder::RemoveLeftOvers(m_options.log);
        RemoveOldToolFiles(m_options.log);
        PrivatePackages copies(m_options.log);
        Means means;
        means.packages = &copies;
        OwnTools tools;
        means.tools = &tools;
        means.tool = FindTool();
        means.folder = m_options.log;
        means.run = m_name;
        means.lock = lock;
        means.backup = m_options.backup;
        means.retries = m_options.retries;
        means.stalledAfter = m_options.stalledAfter;
        means.forceBusy = m_options.forceBusy;
        means.sink = [this](const Event& event) { Tell(event); };
        const Signals signals;
        const Inhibitor inhibitor;
        if (!inhibitor.IsHeld()) Tell(Notice("a shutdown is not held up: " + inhibitor.Problem()));
        Lanes lanes(m_jobs, m_options, [&](Job& job) { FlashOne(job, means, history); });
        lanes.Run(signals, [this](int signal) {
            Event event;
            event["event"] = "stopping";
            event["time"] = TimeText(std::time(nullptr));
            event["signal"] = signal == SIGINT ? "INT" : "TERM";
            Tell(event);
        });
    }

    void FlashOne(Job& job, const Means& means, const HistoryLog& history) {
        HistoryEntry begun = EntryOf(job, m_name, m_who);
        begun.result = "begun";
        const std::string problem = Append(history, begun);
        if (!problem.empty()) {
            job.outcome = Outcome::kFailed;
            job.reason = problem;
            Event event = CardEvent("card-end", job.card);
            event["result"] = OutcomeText(job.outcome);
            event["state"] = StateText(job.verdict.state);
            event["reason"] = job.reason;
            event["attempts"] = 0;
            Tell(event);
            return;
        }
        FlashCard(job, means).Run();
        const std::string late = Append(history, EntryOf(job, m_name, m_who));
        if (!late.empty()) Tell(Notice(late));
    }

    // Returns an error message, empty on success.
    std::string Append(const HistoryLog& history, const HistoryEntry& entry) {
        const std::lock_guard lock(m_historyLock);
        try {
            history.Append(entry);
        } catch (const qvf::Mistake& mistake) {
            return mistake.what();
        }
        return "";
    }

    const UpgradeOptions& m_options;
    Display m_display;
    const std::string m_name;
    const std::string m_who = WhoRuns();
    std::vector<Job> m_jobs;
    std::mutex m_historyLock;
};

void PowerOff() {
    const qvf::ProgramRun run =
        qvf::RunProgram({"poweroff"}, qvf::MemoryFile(), "systemd-sysv or another init");
    if (run.status != 0)
        throw qvf::Mistake("all is written, but poweroff failed with status " +
                           std::to_string(run.status) + ": " + run.errors);
}

}  // namespace

ExitStatus RunUpgrade(const UpgradeOptions& options, std::ostream& out) {
    const ExitStatus status = Run(options, out).Go();
    if (options.powerOff && status == ExitStatus::kDone && !options.dryRun) PowerOff();
    return status;
}

}  // namespace qvo
