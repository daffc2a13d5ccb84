// The nodes; the rest of the computer is in DoctorSystem.cpp.
#include "Doctor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

#include "BusyCards.h"
#include "Cards.h"
#include "NodeChild.h"
#include "Nodes.h"

namespace qvo {
namespace {

constexpr char kEventNode[] = "/dev/qv-event";
constexpr char kNodesCheck[] = "nodes";
constexpr char kPermission[] =
    "run it as root, or as a member of the group video, which the rules of udev give the nodes to";

std::string ChannelText(const _QVCAP_CHANNEL_INFO& info) {
    char number[16];
    std::snprintf(number, sizeof number, "%02d:%02d ", info.boardIndex, info.channelIndex);
    return number + FieldText(info.productName) + ", serial " + FieldText(info.boardSerialNumber);
}

Observation OfUnopened(const std::string& path, int error) {
    const std::string message = std::string("cannot be opened: ") + std::strerror(error);
    if (error == EACCES || error == EPERM)
        return {Severity::kError, kNodesCheck, path, message, kPermission};
    if (error == EBUSY)
        return {Severity::kError, kNodesCheck, path, message,
                "end the program that uses it, see what is said of holders"};
    return {Severity::kError, kNodesCheck, path, message,
            "is the card still in its place? Reload the driver, and read the kernel's log"};
}

Observation OfAnswers(const std::string& path, const NodeAnswers& answers) {
    if (answers.openError != 0) return OfUnopened(path, answers.openError);
    if (answers.IsChannel())
        return {Severity::kOk, kChannelsCheck, path, "is channel " + ChannelText(*answers.identity),
                ""};
    if (!answers.ShouldBeChannel())
        return {Severity::kNote, kNodesCheck, path, "belongs to another driver", ""};
    const bool one = answers.identity.has_value() || answers.family;
    return {Severity::kError, kNodesCheck, path,
            (one ? "answers one request of identity and not the other: " : "") + answers.Problem(),
            "power the computer off and on; should it stay so, the card or its driver is broken"};
}

// Checks that need all channels together.
class Channels {
  public:
    void Add(const _QVCAP_CHANNEL_INFO& info) {
        ++m_count;
        m_serials[info.boardIndex].insert(FieldText(info.boardSerialNumber));
    }
    size_t Count() const { return m_count; }

    std::vector<Observation> Together() const {
        std::vector<Observation> seen;
        const std::string count = std::to_string(m_count);
        if (m_count > QV_MAX_CHANNELS)
            seen.push_back({Severity::kError, kChannelsCheck, "",
                            count + " channels, of which programs see the first 64",
                            "upgrade the boards in two computers, or take boards out meanwhile"});
        else if (m_count == 0)
            seen.push_back(
                {Severity::kError, kChannelsCheck, "", "there is no channel",
                 "is a card in the computer, and its driver loaded? lsmod and the kernel's "
                 "log tell"});
        for (const auto& [board, serials] : m_serials)
            if (serials.size() > 1)
                seen.push_back(
                    {Severity::kWarning, kChannelsCheck, "",
                     std::to_string(serials.size()) + " boards have the number " +
                         std::to_string(board),
                     "set different numbers on the boards, or name cards by their paths"});
        return seen;
    }

  private:
    size_t m_count = 0;
    std::map<int, std::set<std::string>> m_serials;  // by the board's number
};

// `own`: children of this process that hang.
void AddHolders(const std::string& path, const std::set<pid_t>& own,
                const Surroundings& surroundings, std::vector<Observation>& seen) {
    const std::vector<Process> users = UsersOf({path}, own, surroundings.proc);
    if (users.empty()) return;
    seen.push_back({Severity::kNote, "holders", path, "is open in " + ProcessesText(users),
                    "end these programs before an upgrade"});
}

}  // namespace

const char* SeverityText(Severity severity) {
    switch (severity) {
        case Severity::kOk:
            return "ok";
        case Severity::kNote:
            return "note";
        case Severity::kWarning:
            return "warning";
        case Severity::kError:
            break;
    }
    return "error";
}

std::vector<Observation> ExamineNodes(const Surroundings& surroundings) {
    std::vector<Observation> seen;
    Channels channels;
    std::set<pid_t> own;
    for (const std::string& path : VideoNodePaths()) {
        const std::optional<NodeAnswers> answers = AskNodeWithin(path, surroundings.timeout, own);
        if (answers) {
            seen.push_back(OfAnswers(path, *answers));
            if (answers->IsChannel()) channels.Add(*answers->identity);
        } else {
            seen.push_back(
                {Severity::kError, kNodesCheck, path,
                 "does not answer within " + std::to_string(surroundings.timeout) + " seconds",
                 "look into the kernel's log; power the computer off and on. Every program "
                 "that lists the cards waits for this one"});
        }
        AddHolders(path, own, surroundings, seen);
    }
    for (Observation& observation : channels.Together()) seen.push_back(std::move(observation));
    return seen;
}

std::vector<Observation> ExamineEventNode(const Surroundings& surroundings) {
    constexpr char kCheck[] = "event node";
    std::vector<Observation> seen;
    const int fd = open(kEventNode, O_RDWR | O_CLOEXEC);
    const int error = errno;
    if (fd >= 0) {
        close(fd);
        seen.push_back({Severity::kOk, kCheck, kEventNode, "can be opened", ""});
    } else {
        const bool refused = error == EACCES || error == EPERM;
        seen.push_back({Severity::kWarning, kCheck, kEventNode,
                        std::string("cannot be opened: ") + std::strerror(error),
                        refused ? kPermission
                                : "reload the driver; upgrades work without it, events and "
                                  "callbacks do not"});
    }
    AddHolders(kEventNode, {}, surroundings, seen);
    return seen;
}

std::vector<Observation> Examine(const Surroundings& surroundings) {
    std::vector<Observation> seen;
    const auto take = [&seen](std::vector<Observation> more) {
        for (Observation& observation : more) seen.push_back(std::move(observation));
    };
    take(ExamineNodes(surroundings));
    take(ExamineEventNode(surroundings));
    take(ExamineSystem(surroundings));
    take(ExamineVersions());
    if (!surroundings.packages.empty()) take(ExaminePackages(surroundings.packages));
    return seen;
}

}  // namespace qvo
