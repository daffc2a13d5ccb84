#include "UpgradeRun.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "Console.h"
#include "FlashEngine.h"
#include "ToolState.h"

namespace {

constexpr int kLineWidth = 80;

// How much of "MODE from CURRENT to NEW" is printed between the channel's name and the ending.
enum class Says { kNothing, kMode, kModeAndVersions };

struct ResultLine {
    int result;
    bool clearsFirst;
    Says says;
    const char* ending;       // null when a stage has failed
    const char* failedStage;  // named in the ending, with the percentage reached
    int UpgradeCounters::*counter;
};

constexpr ResultLine FailedIn(const char* stage, int result) {
    return {.result = result,
            .clearsFirst = true,
            .says = Says::kModeAndVersions,
            .ending = nullptr,
            .failedStage = stage,
            .counter = &UpgradeCounters::fail};
}

// Deliberate: results without a row here (no package, reconfiguration refused) print nothing and
// are not counted.
constexpr ResultLine kResultLines[] = {
    {.result = kCannotQuery,
     .clearsFirst = true,
     .says = Says::kModeAndVersions,
     .ending = " error (unknow reason).",
     .failedStage = nullptr,
     .counter = &UpgradeCounters::fail},
    {.result = kNotNewer,
     .clearsFirst = false,
     .says = Says::kNothing,
     .ending = "Needn't upgrade",
     .failedStage = nullptr,
     .counter = &UpgradeCounters::skip},
    FailedIn("erasing", kEraseFailed),
    FailedIn("writting", kWriteFailed),
    FailedIn("verifying", kVerifyFailed),
    {.result = kDeclined,
     .clearsFirst = true,
     .says = Says::kMode,
     .ending = " cancled.",
     .failedStage = nullptr,
     .counter = &UpgradeCounters::cancel},
    {.result = kUpgraded,
     .clearsFirst = true,
     .says = Says::kModeAndVersions,
     .ending = " successfully.",
     .failedStage = nullptr,
     .counter = &UpgradeCounters::success},
};

void Report(int result, int i, unsigned int progress, UpgradeCounters* counters) {
    for (const ResultLine& line : kResultLines) {
        if (line.result != result) continue;
        const _QVCAP_UPGRADE_LIST_INFO_& record = g_arrChannsInfo[i];
        if (line.clearsFirst) PrintClear(kLineWidth);
        printf("\r[%d/%d] [%s]  ", i + 1, g_nDevicesNum, record.captureName);
        if (line.says != Says::kNothing)
            printf("%s", record.safeUpgrade ? "Safe upgrade" : "Upgrade");
        if (line.says == Says::kModeAndVersions)
            printf(" from %s to %s", record.currentVersion, record.newVersion);
        if (line.failedStage != nullptr)
            printf(" error (%s at %d%%).", line.failedStage, static_cast<int>(progress));
        else
            printf("%s", line.ending);
        fflush(stdout);
        ++(counters->*line.counter);
    }
}

// An opened channel, closed at its end.
class OpenedChannel {
  public:
    explicit OpenedChannel(const char* path) : m_channel(QVOpenChannelByPath(path)) {}
    ~OpenedChannel() {
        if (!IsNoChannel(m_channel)) QVCloseChannel(m_channel);
    }
    OpenedChannel(const OpenedChannel&) = delete;
    OpenedChannel& operator=(const OpenedChannel&) = delete;

    QV_CHANNEL Get() const { return m_channel; }

  private:
    QV_CHANNEL m_channel;
};

// While it lives, Ctrl-C does not interrupt the flash in progress.
class IgnoredInterruptKey {
  public:
    IgnoredInterruptKey() : m_ignored(signal(SIGINT, SIG_IGN) != SIG_ERR) {}
    ~IgnoredInterruptKey() { PutBack(); }
    IgnoredInterruptKey(const IgnoredInterruptKey&) = delete;
    IgnoredInterruptKey& operator=(const IgnoredInterruptKey&) = delete;

    bool IsIgnored() const { return m_ignored; }
    bool PutBack() {
        if (!m_ignored) return true;
        m_ignored = false;
        return signal(SIGINT, SIG_DFL) != SIG_ERR;
    }

  private:
    bool m_ignored;
};

// False when the channel could not be opened, or the interrupt key could not be ignored or
// restored: then nothing is reported. A null channel goes on: it cannot be queried, and that is
// reported.
bool UpgradeAndReport(int i, UpgradeCounters* counters) {
    const OpenedChannel channel(g_arrChannsInfo[i].devicePath);
    if (IsNoChannel(channel.Get())) return false;
    IgnoredInterruptKey key;
    if (!key.IsIgnored()) return false;
    unsigned int progress = 0;
    const char mode = g_arrChannsInfo[i].safeUpgrade ? kSafeMode : kNormalMode;
    const int result = UpgradeInternel(channel.Get(), i + 1, g_nDevicesNum, mode, &progress);
    if (!key.PutBack()) return false;
    Report(result, i, progress, counters);
    return true;
}

}  // namespace

void PrintWarning() {
    printf(
        "\033[1;31m"
        "/////////////////////////////////////////////////////////////////////////////////\n"
        "//                              !!! Warning !!!                                 //\n"
        "//  Upgrade firmware is an dangerous operation,so please close all applications //\n"
        "//before this operation and don't turn off the computer when upgrading firmware//\n"
        "/////////////////////////////////////////////////////////////////////////////////\n"
        "\n"
        "\033[0m");
}

UpgradeCounters UpgradeListedChannels() {
    UpgradeCounters counters;
    for (int i = 0; i < g_nDevicesNum; ++i)
        if (UpgradeAndReport(i, &counters)) printf("\n");
    return counters;
}

void PrintSummary(const UpgradeCounters& counters) {
    printf("\ntotal %d,  success %d,  fail %d,  skip %d,  cancel %d\n", g_nDevicesNum,
           counters.success, counters.fail, counters.skip, counters.cancel);
}

void OfferPowerOff(const UpgradeCounters& counters) {
    if (counters.fail != 0 || counters.success == 0) return;
    printf(
        "======================================================================\n"
        "\033[7mNeed turn off and then turn on to reload the upgraded firmware!\n"
        "Do you want to turn off your computer now? -- (y)-YES or (n)-NO:\033[0m");
    fflush(stdout);  // the question must be seen before its answer is awaited
    const bool powerOff = AskYesNo();
    printf("\n");
    fflush(stdout);  // the command prints, too, after the text printed here
    if (!powerOff) return;
    const int ignored =
        system("sync; if [ `id -u` -ne 0 ]; then  sudo poweroff; echo; else poweroff; echo; fi");
    static_cast<void>(ignored);  // the user sees whether it worked
}
