// qvcap-upgrade: upgrades the firmware of the capture cards of this computer from the package files
// of the current directory. main() is a list of steps; other files implement them. Single-threaded.
#include <malloc.h>
#include <unistd.h>

#include <cstdio>

#include "CommandLine.h"
#include "FirmwarePackage.h"
#include "Inventory.h"
#include "QVCapture.h"
#include "StandardStreams.h"
#include "ToolState.h"
#include "UpgradeRun.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitBadArguments = -1;

// The process keeps the memory of a released package and reads the next package into it: fresh
// pages for every load cost more than the reading. Packages are loaded one at a time and released
// completely, so the process holds little more than the largest of them.
void KeepPackageMemory() {
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, -1);
}

int Leave(int status) {
    QVCaptureExitInstance();
    return status;
}

// Prints the message of a parsing result, and returns whether it ends the run. Deliberate: a device
// that could not be queried and an unknown option do not end it; earlier options stay in force.
bool RefusesToRun(int parsed) {
    switch (parsed) {
        case kNotACaptureDevice:
            printf("device %s isn't a pelix or lumo capture device\n", optarg);
            return true;
        case kNoSuchDevice:
            printf("device %s doesn't exit\n", optarg);
            return true;
        case kBadArgument:
            puts("error argument, please use \"-h\" option to see usage");
            return true;
        case kExclusiveOptions:
            puts("option \"-a\" \"-b\" and \"-d\" can't not be used at the same time");
            return true;
        default:
            return false;
    }
}

void Upgrade() {
    ListAllChannelInfo();
    printf("\n");
    const UpgradeCounters counters = UpgradeListedChannels();
    PrintSummary(counters);
    ExitQVFList();
    g_nQVFFileNum = 0;
    QVCaptureExitInstance();
    OfferPowerOff(counters);
}

}  // namespace

int main(int argc, char** argv) {
    KeepPackageMemory();
    OccupyOutputStreams();
    QVCaptureInitInstance();
    QVRefreshDevice();
    OccupyInputStream();
    if (InitialQVFList() != 0) {
        puts("Initial QVF file list failed");
        return Leave(kExitOk);
    }
    if (g_nQVFFileNum == 0) puts("No QVF file found in the current directory");
    if (RefusesToRun(PraseCommandLine(argc, argv))) return Leave(kExitBadArguments);
    if ((g_dwCMD & kCmdHelp) != 0 || g_dwCMD == 0) {
        PrintUsage();
        return Leave(kExitOk);
    }
    if ((g_dwCMD & kCmdList) != 0) {
        ListAllChannelInfo();
        return Leave(kExitOk);
    }
    if (g_nDevicesNum < 1) {
        printf("total %d, need upgrade %d\n", g_nDevicesNum, g_nDevicesNeedUpgrade);
        return Leave(kExitOk);
    }
    PrintWarning();
    if (QVGetChannelCount() < 1) {
        puts("No video channel is found");
        return Leave(kExitOk);
    }
    Upgrade();
    return kExitOk;
}
