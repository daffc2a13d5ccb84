// One flash on its way through an upgrade: the tool as a child, the flash read back, another
// attempt, and the way out of an unfinished main image. The flash decides; the tool's words are
// evidence. One thread per object, any number at once for different boards.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Child.h"
#include "Events.h"
#include "Plan.h"
#include "PrivateFolder.h"
#include "ToolOutput.h"

namespace qvo {

enum class Outcome {
    kPlanned,   // not begun
    kDone,      // written and read back
    kFailed,    // tried in vain, or it cannot be judged
    kRefused,   // not tried: the package is not to be trusted
    kBusy,      // not tried: another process has it open
    kLeft,      // current or staged
    kSkipped,   // no package fits
    kNotBegun,  // the run was ended before
};
const char* OutcomeText(Outcome outcome);  // "done", "failed", ...

// A package for the way out of an unfinished main image.
struct EarlierPackage {
    std::string name;
    std::shared_ptr<const PackageContents> contents;
};

// All that is known of one flash in a run.
struct Job {
    Card card;
    Fit fit;
    std::shared_ptr<const PackageContents> contents;  // null where no single package fits
    std::string sha256;                               // of that package's file
    Verdict verdict;
    StoredHeader stored;
    CardPlan plan;
    std::vector<EarlierPackage> earlier;

    Outcome outcome = Outcome::kPlanned;
    std::string reason;  // for every outcome but kDone
    int attempts = 0;
    ToolReport tool;       // of the last attempt
    std::string toolFile;  // the tool's whole output then
};

// What all flashes of a run have in common.
struct Means {
    std::string tool;    // program
    std::string folder;  // for the tool's output
    PrivatePackages* packages = nullptr;
    std::string run;  // name of the run
    int lock = -1;
    int retries = 1;
    std::string backup;     // folder; empty: nothing is saved
    int stalledAfter = 60;  // seconds without progress that are worth a word
    bool forceBusy = false;
    EventSink sink;
};

// Event with the card's name and the time.
Event CardEvent(const std::string& kind, const Card& card);

// Reads the flash of a job and compares it with a package; also reads what decides the mode.
void ReadBack(Job& job, const PackageContents& contents, const Progress& progress = nullptr);

class FlashCard {
  public:
    FlashCard(Job& job, const Means& means) : m_job(job), m_means(means) {}
    // Leaves outcome, reason and evidence in the job. Throws nothing.
    void Run();

  private:
    void TryUntilDone();
    void BackUp();
    bool Attempt(const std::shared_ptr<const PackageContents>& contents, Mode mode, bool force);
    bool BringBack();
    void Watch(Child& child, const std::string& output);
    void Judge(const PackageContents& contents, Mode mode);
    void TellEnd();
    std::string Advice() const;

    Job& m_job;
    const Means& m_means;
};

}  // namespace qvo
