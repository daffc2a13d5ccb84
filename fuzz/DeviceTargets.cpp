// Targets: the upgrade tool's parts over simulated cards whose driver returns arbitrary data.
#include <fcntl.h>
#include <getopt.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "CommandLine.h"
#include "FirmwarePackage.h"
#include "Input.h"
#include "Inventory.h"
#include "OpenChannels.h"
#include "QVCapture.h"
#include "Targets.h"
#include "ToolState.h"
#include "UpgradeRun.h"
#include "support/PackageBuilder.h"
#include "support/SimRig.h"

namespace qvfuzz {
namespace {

constexpr uint32_t kFirmware = 0x2000;
constexpr uint32_t kFlashSize = 0x6000;

void ResetTool() {
    g_dwCMD = 0;
    g_nBoardIndex = kAnyIndex;
    g_nChannelIndex = kAnyIndex;
    g_nDevicesNum = 0;
    g_nDevicesNeedUpgrade = 0;
    for (_QVCAP_UPGRADE_LIST_INFO_& record : g_arrChannsInfo) record = {};
}

// The only package of the current folder.
void OfferPackage(const qvtest::PackageBuilder& package) {
    static const bool kThere = chdir(Folder().c_str()) == 0;
    Check(kThere, "the folder cannot be entered");
    static const int file = open("p.qvf", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const qvtest::Bytes bytes = package.File();
    Overwrite(file, bytes.data(), bytes.size());
}

// Makes these bytes the standard input.
void OfferKeys(const uint8_t* data, size_t size) {
    static const int file = memfd_create("keys", MFD_CLOEXEC);
    static const bool kTaken =
        std::freopen(("/proc/self/fd/" + std::to_string(file)).c_str(), "r", stdin) != nullptr &&
        std::setvbuf(stdin, nullptr, _IONBF, 0) == 0;  // nothing is left from the previous run
    Check(kTaken, "no standard input");
    Overwrite(file, data, size);
    std::rewind(stdin);
}

// The library and the list of packages, as during a run of the tool.
class ToolRun {
  public:
    ToolRun() {
        QVCaptureInitInstance();
        ResetTool();
        Check(InitialQVFList() == 0, "no list of packages");
    }
    ~ToolRun() {
        std::fflush(stdout);
        ExitQVFList();
        CloseChannelsLeftOpen();
        QVCaptureExitInstance();
    }
    ToolRun(const ToolRun&) = delete;
    ToolRun& operator=(const ToolRun&) = delete;
};

void CheckList() {
    Check(g_nDevicesNum >= 0 && g_nDevicesNum <= kListCapacity, "the list is too long");
    for (int i = 0; i < g_nDevicesNum; ++i) {
        const _QVCAP_UPGRADE_LIST_INFO_& record = g_arrChannsInfo[i];
        Check(memchr(record.captureName, 0, sizeof record.captureName) &&
                  memchr(record.devicePath, 0, sizeof record.devicePath) &&
                  memchr(record.currentVersion, 0, sizeof record.currentVersion) &&
                  memchr(record.newVersion, 0, sizeof record.newVersion),
              "a text without an end");
        Check(record.needUpgrade <= 1 && record.safeUpgrade <= 1, "a flag that is none");
    }
}

}  // namespace

// Input: one byte with the number of boards, their kind, and whether the driver describes the flash
// in its own way; then records for each board; the rest is the flash contents.
void ListDevices(const uint8_t* data, size_t size) {
    Taker taker(data, size);
    const uint8_t kinds = taker.Byte();
    const bool ownLayout = (kinds & 0x20) != 0;
    struct Records {
        _QVCAP_CHANNEL_INFO info;
        _QVCAP_PELIX_CAPTURE_INFO family;
        _QVCAP_FIRMWARE_STORAGE storage;
    };
    std::vector<Records> records(1 + kinds % 3);
    qvsim::SimRig rig;
    for (size_t i = 0; i < records.size(); ++i) {
        taker.Fill(&records[i].info, sizeof records[i].info);
        if (ownLayout) {
            taker.Fill(&records[i].family, sizeof records[i].family);
            taker.Fill(&records[i].storage, sizeof records[i].storage);
        }
        const auto edit = [ownLayout, &record = records[i]](qvsim::ChannelState& channel) {
            channel.info = record.info;
            if (!ownLayout) return;
            channel.family = record.family;
            channel.storage = record.storage;
        };
        rig.Add(((kinds >> (2 + i) & 1) ? qvsim::Lumo() : qvsim::Pelix())
                    .FirmwareOffset(kFirmware)
                    .FlashSize(kFlashSize)
                    .RawChannel(edit));
    }
    OfferPackage(qvtest::Package()
                     .ProductCode(records[0].info.productCode)
                     .Hardware(records[0].info.hardwareVersion)
                     .Compatibility(7)
                     .Section("Factory.Main", 0x4000, 10));
    rig.AttachInMemory();
    {
        const ToolRun run;
        std::vector<uint8_t> flash(std::min<size_t>(taker.Left(), 4096));
        taker.Fill(flash.data(), flash.size());
        if (const QV_CHANNEL channel = QVOpenChannelByPath("/dev/video0"); channel != nullptr) {
            QVEraseFirmwareData(channel, kFirmware, 4096);
            QVWriteFirmwareData(channel, kFirmware, flash.data(),
                                static_cast<unsigned>(flash.size()));
            QVCloseChannel(channel);
        }
        int count = kListCapacity;
        if (GetDevicesInfo(g_arrChannsInfo, &count, kAnyIndex, kAnyIndex) == 0)
            g_nDevicesNum = count;
        CheckList();
        ListAllChannelInfo();
    }
    Check(rig.Cards().CountAlive() == qvsim::Alive{}, "the driver still holds something");
}

// Input: arguments, each ended by a newline, up to a zero byte; then the keys that are typed. The
// power-off question is left out.
void RunCommandLine(const uint8_t* data, size_t size) {
    const uint8_t* const end = std::find(data, data + size, uint8_t{0});
    std::vector<std::string> arguments = {"qvcap-upgrade", ""};
    for (const uint8_t* at = data; at < end && arguments.size() < 16; ++at) {
        if (*at == '\n')
            arguments.emplace_back();
        else
            arguments.back() += static_cast<char>(*at);
    }
    if (arguments.back().empty()) arguments.pop_back();
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);

    const uint8_t* const keys = end == data + size ? end : end + 1;
    OfferKeys(keys, static_cast<size_t>(data + size - keys));

    qvsim::SimRig rig;
    rig.Add(qvsim::Pelix().FirmwareOffset(kFirmware).FlashSize(kFlashSize))
        .Add(qvsim::Lumo().Channels(2).FirmwareOffset(kFirmware).FlashSize(kFlashSize));
    static const qvtest::PackageBuilder kPackage =
        qvtest::Package().Section("Factory.Main", 0x4000, 10);
    OfferPackage(kPackage);
    rig.AttachInMemory();
    {
        const ToolRun run;
        optind = 0;  // restarts getopt
        opterr = 0;
        const int parsed = PraseCommandLine(static_cast<int>(arguments.size()), argv.data());
        Check(parsed >= 0 && parsed <= 5, "an unknown result");
        CheckList();
        ListAllChannelInfo();
        if (parsed == 0 || parsed == 5) {
            const UpgradeCounters counters = UpgradeListedChannels();
            Check(
                counters.success + counters.fail + counters.skip + counters.cancel == g_nDevicesNum,
                "a channel counts nowhere, or twice");
            Check(counters.fail == 0, "healthy cards fail");
            PrintSummary(counters);
        }
    }
    Check(rig.Cards().CountAlive() == qvsim::Alive{}, "the driver still holds something");
}

}  // namespace qvfuzz
