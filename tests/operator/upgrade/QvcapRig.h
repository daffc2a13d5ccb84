// Runs the real qvcap over simulated cards: packages, log and lock in a folder of the test's own.
// `poweroff`, `sudo` and `sync` are recording stand-ins, first on the path of every run: no test
// can turn the machine off. Linux only; the rig belongs to one thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/PackageBuilder.h"
#include "support/SimRig.h"
#include "support/TempFolder.h"

namespace qvtest {

struct UpgradeRun {
    int status = -1;  // exit status; -1 when a signal ended it
    int signal = 0;
    std::string output;
    std::string errors;

    // Each line of the output as JSON.
    std::vector<nlohmann::json> Events() const;
    // Those of one kind.
    std::vector<nlohmann::json> Events(const std::string& kind) const;
    // The closing report.
    nlohmann::json Report() const;
};

// A qvcap that is running.
class RunningQvcap {
  public:
    RunningQvcap(pid_t pid, std::string output, std::string errors)
        : m_pid(pid), m_output(std::move(output)), m_errors(std::move(errors)) {}
    ~RunningQvcap();
    RunningQvcap(const RunningQvcap&) = delete;
    RunningQvcap& operator=(const RunningQvcap&) = delete;

    pid_t Number() const { return m_pid; }
    std::string Output() const;  // so far
    // Waits until the output has the text; false when the run ended without.
    bool WaitFor(const std::string& text);
    bool HasEnded() const;
    UpgradeRun Wait();

  private:
    pid_t m_pid;
    std::string m_output;
    std::string m_errors;
};

class QvcapRig {
  public:
    QvcapRig();
    QvcapRig(const QvcapRig&) = delete;
    QvcapRig& operator=(const QvcapRig&) = delete;

    qvsim::SimRig cards;

    std::string Packages() const { return m_root + "/packages"; }
    std::string Log() const { return m_root + "/log"; }
    std::string Lock() const { return m_root + "/lock"; }
    std::string operator/(const std::string& name) const { return m_root + "/" + name; }
    void Write(const PackageBuilder& package, const std::string& name = "a.qvf") {
        package.Write(Packages() + "/" + name);
    }

    // `qvcap upgrade --packages … --log … --lock …` and these.
    UpgradeRun Upgrade(const std::vector<std::string>& options = {});
    std::unique_ptr<RunningQvcap> StartUpgrade(const std::vector<std::string>& options = {});
    // Any command.
    UpgradeRun Run(const std::vector<std::string>& arguments);
    std::unique_ptr<RunningQvcap> Start(const std::vector<std::string>& arguments);
    // The unchanged tool, in the folder of the packages.
    UpgradeRun Tool(const std::vector<std::string>& arguments);
    std::unique_ptr<RunningQvcap> StartTool(const std::vector<std::string>& arguments);
    // The states that `qvcap status` tells, in the order of the cards.
    std::vector<std::string> States();

    // Which stand-ins ran.
    std::string Commands() const;
    // Replaces a stand-in by a shell script, or puts one there.
    void StandIn(const std::string& name, const std::string& body);
    void Environment(const std::string& setting) { m_environment.push_back(setting); }
    // Every program that is started from here on finds this signal ignored.
    void Ignore(int signal) { m_ignored = signal; }
    // The bytes that a file of this run may have at most: a disk that is full.
    void LimitFiles(unsigned long bytes) { m_fileLimit = bytes; }
    // No program that is started from here on can write to this folder; its owner can. Needs root.
    void MountReadOnly(const std::string& folder) { m_readOnly = folder; }
    // Each program that is started from here on has a file system of its own in this folder, of a
    // size in the words of tmpfs, such as "size=32k". Needs root.
    void MountSmall(const std::string& folder, const std::string& size) {
        m_small = folder;
        m_size = size;
    }
    // The nodes of two boards change places: each answers as the other's card from now on.
    void SwapNodes(size_t board, size_t other);
    size_t Changes();  // how many erases and writes the cards have seen

  private:
    std::unique_ptr<RunningQvcap> StartProgram(const std::string& file, const std::string& name,
                                               const std::string& folder,
                                               const std::vector<std::string>& arguments);

    const TempFolder m_folder{"qvcap"};
    const std::string m_root = m_folder.Path();
    std::vector<std::string> m_environment;
    int m_ignored = 0;
    unsigned long m_fileLimit = 0;
    std::string m_readOnly;
    std::string m_small;
    std::string m_size;
    int m_runs = 0;
};

std::string FileText(const std::string& path);
// Whether a fault has looked at so many requests: it meets one that is served late when that
// begins.
bool FaultsHaveSeen(qvsim::SimRig& cards, uint32_t requests);
// Waits, without an end of its own, until the condition holds.
template <class Condition>
void WaitUntil(Condition holds);

void Pause();

template <class Condition>
void WaitUntil(Condition holds) {
    while (!holds()) Pause();
}

}  // namespace qvtest
