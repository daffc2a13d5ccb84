// Finds problems with the cards: nodes, permissions, processes that have nodes open, answers,
// versions, packages. Each observation says what was seen and, if something is wrong, what to do.
// Opens nodes and sends the two identity requests, nothing else. One thread.
#pragma once

#include <string>
#include <vector>

namespace qvo {

enum class Severity { kOk, kNote, kWarning, kError };
const char* SeverityText(Severity severity);  // "ok", "note", "warning", "error"

struct Observation {
    Severity severity = Severity::kOk;
    std::string check;    // "channels", "event node", "holders", ...
    std::string subject;  // a node, a file, a card; empty for none
    std::string message;
    std::string advice;  // what to do; empty when nothing is wrong
};

struct Surroundings {
    std::string packages;  // folder; empty: packages are not checked
    int timeout = 5;       // seconds to wait for a node's answer
    std::string proc = "/proc";
    std::vector<std::string> ruleFolders = {"/etc/udev/rules.d", "/run/udev/rules.d",
                                            "/usr/lib/udev/rules.d", "/lib/udev/rules.d"};
};

std::vector<Observation> Examine(const Surroundings& surroundings);

// The parts of the check.
std::vector<Observation> ExamineNodes(const Surroundings& surroundings);
std::vector<Observation> ExamineEventNode(const Surroundings& surroundings);
std::vector<Observation> ExamineSystem(const Surroundings& surroundings);
std::vector<Observation> ExamineVersions();
std::vector<Observation> ExaminePackages(const std::string& folder);

// The name of the check for a channel that answers correctly.
inline constexpr char kChannelsCheck[] = "channels";

}  // namespace qvo
