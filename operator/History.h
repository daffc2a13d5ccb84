// The log of what was done to cards: JSON lines in one file a month, appended as a whole or not at
// all, and bounded. Failures of writing are Mistakes; reading takes any bytes. One thread per
// object.
#pragma once

#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace qvo {

inline constexpr char kLogFolder[] = "/var/log/qvcap";
inline constexpr size_t kMostMonths = 36;  // older files are removed
inline constexpr uint64_t kMostOfMonth =
    8 * 1024 * 1024;                              // bytes; the older half of a larger file goes
inline constexpr size_t kMostOfLine = 16 * 1024;  // bytes; a longer one is not written, nor read

// One flash in one run. Texts are as they were found: any bytes.
struct HistoryEntry {
    std::string time;  // "2026-11-22T03:10:11Z"
    std::string run;   // the same for all cards of a run
    std::string who;
    std::string card;  // "0:1"
    std::string product;
    std::string serial;
    std::string from;     // version
    std::string to;       // version
    std::string result;   // "done", "failed", ...
    std::string reason;   // when it is not "done"
    std::string package;  // file
    std::string sha256;   // of the package
    int attempts = 0;
    std::string message;  // the tool's last words
};

struct History {
    std::vector<HistoryEntry> entries;  // as they were written
    size_t damaged = 0;                 // lines that are none
};

class HistoryLog {
  public:
    // Makes the folder where it is missing, and tries that it can be written to.
    explicit HistoryLog(const std::string& folder);
    const std::string& Folder() const { return m_folder; }
    void Append(const HistoryEntry& entry) const;

  private:
    std::string m_folder;
};

std::string HistoryLine(const HistoryEntry& entry);  // with its line feed
History ParseHistory(std::string_view text);
// All months of a folder, the oldest first. A folder that is not there has no history.
History ReadHistory(const std::string& folder);

nlohmann::ordered_json HistoryJson(const HistoryEntry& entry);
std::string HistoryText(const History& history);  // a table for people

std::string TimeText(std::time_t time);  // UTC, "2026-11-22T03:10:11Z"
// "root", or "root (for anna)" through sudo. Before other threads are started: it asks the system's
// list of users, which answers one thread at a time.
std::string WhoRuns();

}  // namespace qvo
