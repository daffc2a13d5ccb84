#include "Scenarios.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace qvtest {
namespace {

constexpr uint32_t kFirmware = 0x2000;  // the safe header stands 4096 bytes further on
constexpr uint32_t kFlashSize = 0x40000;
constexpr uint32_t kSector = 4096;

// Thousands of small folders are made and removed: in memory, where there is such a file system.
[[maybe_unused]] const bool g_inMemory = [] {
    struct stat status;
    const char* const kMemory = "/dev/shm";
    return stat(kMemory, &status) == 0 && S_ISDIR(status.st_mode) && access(kMemory, W_OK) == 0 &&
           setenv("TMPDIR", kMemory, 0) == 0;
}();

PackageBuilder NewPackage() { return Package().Firmware(1, 1); }

// Both images, small.
PackageBuilder SmallPackage(uint16_t code) {
    return NewPackage()
        .Compatibility(code)
        .Section("Factory.Main", 0x4000, 5000)
        .Section("Upgrade.Main", 0x20000, 500);
}

PackageBuilder EarlierPackage(int minor) {
    return Package().Firmware(1, minor).Compatibility(5).Section("Factory.Main", 0x4000, 2000);
}

std::vector<Scenario> Make() {
    const RefOptions all;
    RefOptions byPath, byNumber, forced;
    byPath.device = "/dev/video0";
    byNumber.device = "0:0";
    forced.force = true;
    std::vector<Scenario> scenarios;
    scenarios.push_back({"normal",
                         {{}},
                         NewPackage()
                             .Section("Factory.Main", 0x4000, 70000)
                             .Section("Upgrade.Main", 0x20000, 500)
                             .Section("Other", 0x30000, 300),
                         {all, byPath, byNumber, forced}});
    scenarios.push_back({"safe",
                         {{.storedCode = 7}},
                         NewPackage()
                             .Compatibility(7)
                             .Section("Factory.Main", 0x4000, 3000)
                             .Section("Upgrade.Main", 0x10000, 66000)
                             .Section("Upgrade.CLR", 0x30000, 20)
                             .Section("Upgrade.Tail", 0x38000, 10),
                         {all, byPath}});
    scenarios.push_back({"clear",
                         {{}},
                         NewPackage()
                             .Section("Factory.CLR.Log", 0x4000, 65537)
                             .Section("Factory.Main", 0x18000, 1000)
                             .Section("Factory.CLR.B", 0x30000, 10),
                         {all}});
    scenarios.push_back({"two boards",
                         {{}, {}},
                         NewPackage().Section("Factory.Main", 0x4000, 9000),
                         {all, byNumber}});
    scenarios.push_back({"four channels of one Lumo card",
                         {{.lumo = true, .channels = 4}},
                         NewPackage().Section("Factory.Main", 0x4000, 5000),
                         {all}});
    scenarios.push_back({"header only", {{}}, NewPackage(), {all, byPath}});
    scenarios.push_back(
        {"65537 bytes", {{}}, NewPackage().Section("Factory.Main", 0x4000, 65537), {all}});
    scenarios.push_back({"safe, forced", {{.storedCode = 7}}, SmallPackage(7), {forced}});
    scenarios.push_back({"code 5 to 7",
                         {{.storedCode = 5}},
                         SmallPackage(7),
                         {all, forced},
                         kRunning,
                         EarlierPackage(0)});
    scenarios.push_back(
        {"to code 0", {{.storedCode = 5}}, SmallPackage(0), {all}, kRunning, EarlierPackage(0)});
    scenarios.push_back({"same version, code 5 to 7",
                         {{.storedCode = 5}},
                         SmallPackage(7),
                         {forced},
                         kNew,
                         EarlierPackage(1)});
    return scenarios;
}

}  // namespace

const std::vector<Scenario>& Scenarios() {
    static const std::vector<Scenario> kScenarios = Make();
    return kScenarios;
}

std::vector<std::string> Arguments(const RefOptions& options) {
    std::vector<std::string> arguments = {"-y"};
    if (options.force) arguments.push_back("-f");
    if (options.device) {
        arguments.push_back("-d");
        arguments.push_back(*options.device);
    } else {
        arguments.push_back("-a");
    }
    return arguments;
}

void AddBoards(const Scenario& scenario, qvsim::SimRig* rig) {
    const int major = static_cast<int>(scenario.running >> 16);
    const int minor = static_cast<int>(scenario.running & 0xFFFF);
    for (const SweepBoard& board : scenario.boards) {
        qvsim::BoardBuilder builder = board.lumo ? qvsim::Lumo() : qvsim::Pelix();
        rig->Add(builder.Channels(board.channels)
                     .Product("CARD")
                     .Firmware(major, minor)
                     .Golden(0, 9)
                     .Stored(major, minor, board.storedCode)
                     .FirmwareOffset(kFirmware)
                     .FlashSize(kFlashSize));
    }
}

void LayOut(const Scenario& scenario, qvsim::SimRig& rig) {
    // In the files of a flash every byte is complemented, which makes no difference to these.
    static const Bytes kLeftOver = Payload(kFlashSize - kFirmware - kSector, 77);
    int index = 0;
    for (const SweepBoard& board : scenario.boards) {
        for (int c = 0; c < (board.lumo ? 1 : board.channels); ++c) {
            const std::string name = board.lumo ? "" : "-c" + std::to_string(c);
            std::fstream file(rig.Dir() + "/flash-b" + std::to_string(index) + name + ".bin",
                              std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(kFirmware + kSector);
            file.write(reinterpret_cast<const char*>(kLeftOver.data()),
                       static_cast<std::streamsize>(kLeftOver.size()));
            EXPECT_TRUE(file.flush().good()) << "flash of board " << index;
        }
        ++index;
    }
}

RefWorld WorldOf(const Scenario& scenario) {
    RefWorld world;
    int index = 0;
    size_t flashes = 0;
    for (const SweepBoard& board : scenario.boards) {
        for (int c = 0; c < board.channels; ++c) {
            RefChannel channel;
            channel.board = index;
            channel.channel = c;
            channel.node = static_cast<int>(world.channels.size());
            channel.flash = flashes;
            channel.lumo = board.lumo;
            channel.product = "CARD";
            channel.version = scenario.running;
            channel.firmware = kFirmware;
            world.channels.push_back(channel);
            if (!board.lumo) ++flashes;
        }
        if (board.lumo) ++flashes;
        ++index;
    }
    return world;
}

std::vector<Bytes> Flashes(const Scenario& scenario, qvsim::SimRig& rig) {
    std::vector<Bytes> flashes;
    int index = 0;
    for (const SweepBoard& board : scenario.boards) {
        for (int c = 0; c < (board.lumo ? 1 : board.channels); ++c)
            flashes.push_back(rig.Flash(index, c, 0, kFlashSize));
        ++index;
    }
    return flashes;
}

std::string Outcome(const RefRun& run) {
    const auto says = [&](const char* text) { return run.output.find(text) != std::string::npos; };
    if (run.status != 0) return "device refused";
    if (says("total 0, need")) return "nothing listed";
    if (says("error (erasing")) return "erase failed";
    if (says("error (writting")) return "write failed";
    if (says("error (verifying")) return "verify failed";
    if (says("error (unknow")) return "unknown reason";
    if (says("Set post reconfig failed")) return "reconfiguration failed";
    if (says("successfully.")) return "ok";
    if (says("Needn't upgrade")) return "not needed";
    return "silent";
}

std::string FaultText(const qvsim::Fault& fault) {
    return std::string(qvsim::FaultKindName(fault.effect.kind)) + "(" +
           std::to_string(fault.effect.value) + ") at " + fault.request + " " +
           std::to_string(fault.nth) + " of board " + std::to_string(fault.board) + " channel " +
           std::to_string(fault.channel);
}

void InParallel(size_t count, const std::function<void(size_t)>& work) {
    std::atomic<size_t> next = 0;
    const auto run = [&] {
        for (size_t i = next++; i < count; i = next++) work(i);
    };
    std::vector<std::thread> threads;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // A sanitizer's allocator does not come through a fork while another thread allocates.
    for (unsigned i = 1; i < std::max(2u, std::thread::hardware_concurrency()); ++i)
        threads.emplace_back(run);
#endif
    run();
    for (std::thread& thread : threads) thread.join();
}

}  // namespace qvtest
