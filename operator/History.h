// The log of upgrades: JSON lines in one file per month, each line appended completely or not at
// all, of bounded size. A failure to write is a Mistake; reading accepts any bytes. One thread per
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
// Bytes: the older half of a larger file is removed; a longer line is neither written nor read.
inline constexpr uint64_t kMostOfMonth = uint64_t{8} << 20;
inline constexpr size_t kMostOfLine = size_t{16} << 10;

// One flash in one run. Texts are unchanged and may hold any bytes.
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
    std::string message;  // the tool's last line
};

struct History {
    std::vector<HistoryEntry> entries;  // as they were written
    size_t damaged = 0;                 // lines that are no valid entry
};

class HistoryLog {
  public:
    // Makes the folder if it is missing, and checks that it is writable.
    explicit HistoryLog(const std::string& folder);
    const std::string& Folder() const { return m_folder; }
    void Append(const HistoryEntry& entry) const;

  private:
    std::string m_folder;
};

std::string HistoryLine(const HistoryEntry& entry);  // with its line feed
History ParseHistory(std::string_view text);
// All months of a folder, the oldest first. A missing folder has no history.
History ReadHistory(const std::string& folder);

nlohmann::ordered_json HistoryJson(const HistoryEntry& entry);
std::string HistoryText(const History& history);  // a readable table

std::string TimeText(std::time_t time);  // UTC, "2026-11-22T03:10:11Z"
// "root", or "root (for anna)" through sudo. Call it before other threads start: the system's user
// list is not thread-safe.
std::string WhoRuns();

}  // namespace qvo
