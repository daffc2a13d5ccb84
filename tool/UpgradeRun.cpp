#include "UpgradeRun.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "Console.h"
#include "FlashEngine.h"
#include "ToolState.h"

namespace {

constexpr int kLineWidth = 80;

// How much of "MODE from CURRENT to NEW" stands between the channel's name and the ending.
enum class Says { kNothing, kMode, kModeAndVersions };

struct ResultLine {
    int result;
    bool clearsFirst;
    Says says;
    const char* ending;  // a format; its only argument is the percentage
    int UpgradeCounters::*counter;
};

// Deliberate: results without a line here (no package, reconfiguration refused) print nothing and
// count nowhere.
// A table stays a table.
// clang-format off
constexpr ResultLine kResultLines[] = {
    {kCannotQuery, true, Says::kModeAndVersions, " error (unknow reason).", &UpgradeCounters::fail},
    {kNotNewer, false, Says::kNothing, "Needn't upgrade", &UpgradeCounters::skip},
    {kEraseFailed, true, Says::kModeAndVersions, " error (erasing at %d%%).",
     &UpgradeCounters::fail},
    {kWriteFailed, true, Says::kModeAndVersions, " error (writting at %d%%).",
     &UpgradeCounters::fail},
    {kVerifyFailed, true, Says::kModeAndVersions, " error (verifying at %d%%).",
     &UpgradeCounters::fail},
    {kDeclined, true, Says::kMode, " cancled.", &UpgradeCounters::cancel},
    {kUpgraded, true, Says::kModeAndVersions, " successfully.", &UpgradeCounters::success},
};
// clang-format on

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
        printf(line.ending, static_cast<int>(progress));
        fflush(stdout);
        ++(counters->*line.counter);
    }
}

// Ctrl-C must not interrupt a flash in progress. Nothing is reported when that cannot be arranged.
void UpgradeAndReport(QV_CHANNEL channel, int i, UpgradeCounters* counters) {
    if (signal(SIGINT, SIG_IGN) == SIG_ERR) return QVCloseChannel(channel);
    unsigned int progress = 0;
    const char mode = g_arrChannsInfo[i].safeUpgrade ? kSafeMode : kNormalMode;
    const int result = UpgradeInternel(channel, i + 1, g_nDevicesNum, mode, &progress);
    if (signal(SIGINT, SIG_DFL) == SIG_ERR) return QVCloseChannel(channel);
    Report(result, i, progress, counters);
    QVCloseChannel(channel);
    printf("\n");
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
    for (int i = 0; i < g_nDevicesNum; ++i) {
        QV_CHANNEL channel = QVOpenChannelByPath(g_arrChannsInfo[i].devicePath);
        // A null channel goes on: it cannot be queried, which is reported.
        if (!IsNoChannel(channel)) UpgradeAndReport(channel, i, &counters);
    }
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
    fflush(stdout);  // the command prints too, behind what was printed here
    if (!powerOff) return;
    const int ignored =
        system("sync; if [ `id -u` -ne 0 ]; then  sudo poweroff; echo; else poweroff; echo; fi");
    static_cast<void>(ignored);  // whether it worked shows by itself
}
