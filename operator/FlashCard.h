// The upgrade of one flash: runs the tool as a child, reads the flash back, tries again, and
// repairs an unfinished main image. The flash decides; the tool's output is evidence. One thread
// per object; objects for different boards may run at the same time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "BusyCards.h"
#include "Child.h"
#include "Events.h"
#include "Plan.h"
#include "PrivateFolder.h"
#include "StallWatch.h"
#include "ToolOutput.h"

namespace qvo {

enum class Outcome {
    kPlanned,   // not begun
    kDone,      // written and read back
    kFailed,    // tried without success, or it cannot be judged
    kRefused,   // not tried: the package cannot be trusted
    kBusy,      // not tried: another process has it open
    kLeft,      // current or staged
    kSkipped,   // no package fits
    kNotBegun,  // the run ended before
};
const char* OutcomeText(Outcome outcome);  // "done", "failed", ...

// A package that can repair an unfinished main image.
struct EarlierPackage {
    std::string name;
    std::shared_ptr<const PackageContents> contents;
};

// Everything about one flash in a run.
struct Job {
    Card card;
    Fit fit;
    std::shared_ptr<const PackageContents> contents;  // null unless exactly one package fits
    std::string sha256;                               // of that package's file
    Verdict verdict;
    StoredHeader stored;
    CardPlan plan;
    std::vector<EarlierPackage> earlier;

    Outcome outcome = Outcome::kPlanned;
    std::string reason;  // for every outcome but kDone
    int attempts = 0;
    ToolReport tool;       // of the last attempt
    std::string toolFile;  // the tool's whole output in that attempt
};

// The settings that all flashes of a run share.
struct Means {
    std::string tool;    // program
    std::string folder;  // for the tool's output
    PrivatePackages* packages = nullptr;
    OwnTools* tools = nullptr;
    std::string run;  // name of the run
    int lock = -1;
    int retries = 1;
    std::string backup;     // folder; empty: nothing is saved
    int stalledAfter = 60;  // seconds without progress until a message
    bool forceBusy = false;
    EventSink sink;
};

// An event with the card's name and the time.
Event CardEvent(const std::string& kind, const Card& card);

// Reads the flash of a job and compares it with a package; also reads what decides the mode.
void ReadBack(Job& job, const PackageContents& contents, const Progress& progress = nullptr);

class FlashCard {
  public:
    FlashCard(Job& job, const Means& means) : m_job(job), m_means(means) {}
    // Stores outcome, reason and evidence in the job. Throws nothing.
    void Run();

  private:
    void TryUntilDone();
    void BackUp();
    bool Attempt(const std::shared_ptr<const PackageContents>& contents, Mode mode, bool force);
    bool BringBack();
    void Watch(Child& child, const std::string& output);
    void Judge(const PackageContents& contents, Mode mode);
    void ExpectSameCard(const char* meaning) const;
    StallWatch::Tell TellOfStall(pid_t process) const;
    void TellEnd();
    std::string Advice() const;

    Job& m_job;
    const Means& m_means;
};

}  // namespace qvo
