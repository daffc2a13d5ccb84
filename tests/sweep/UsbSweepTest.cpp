// An upgrade of a USB device with one transfer going wrong, at every one of them: refused, the
// device pulled out, its power gone. What the tool says, the flash byte by byte, what runs when the
// device is plugged in again, and the next run are the table of docs/recovery.md;
// scripts/recovery-table writes it there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <tuple>

#include "Document.h"
#include "Scenarios.h"
#include "tool/UsbDevices.h"

namespace qvtest {
namespace {

constexpr uint32_t kHeaderAt = 0x1000;
constexpr uint32_t kMainAt = 0x8000;
constexpr uint32_t kClearAt = 0x10000;
constexpr uint32_t kSectorBytes = 4096;
constexpr uint32_t kFlashBytes = 1 << 20;

PackageBuilder UsbPackage() {
    return Package()
        .Firmware(1, 1)
        .Section("Factory.Main", kMainAt, 2500)
        .Section("Factory.CLR.Log", kClearAt, 100);
}

// One transfer of a run in which nothing goes wrong.
struct Step {
    std::string name;  // as a fault names it
    int nth = 0;
    uint32_t address = 0;
    uint32_t size = 0;
    size_t phase = 0;
};

const char* const kUsbPhases[] = {"listing, asking", "erasing the header", "erasing a section",
                                  "the blank check", "writing the header", "writing a section",
                                  "verifying"};

std::vector<Step> StepsOf(const std::vector<std::string>& transfers) {
    std::vector<Step> steps;
    std::map<std::string, int> counts;
    bool erased = false, written = false;
    size_t phase = 0;
    for (const std::string& line : transfers) {
        Step step;
        char name[16] = {}, rest[32] = {};
        EXPECT_LE(1, std::sscanf(line.c_str(), "%15s %31s", name, rest)) << line;
        step.name = name == std::string("get") ? rest : name;
        std::sscanf(rest, "0x%X+%u", &step.address, &step.size);
        if (step.name == "erase") phase = erased ? 2 : 1;
        if (step.name == "write") phase = written ? 5 : 4;
        if (step.name == "address" && erased) phase = written ? 6 : 3;
        erased |= step.name == "erase";
        written |= step.name == "write";
        step.phase = phase;
        step.nth = ++counts[step.name];
        steps.push_back(step);
    }
    return steps;
}

struct Trouble {
    const char* name;
    std::string kind;  // of the fault
    uint32_t value;
    bool plugged;  // the device is plugged in again after it
    double done;   // how much of an erase or write is carried out
};

std::vector<Trouble> TroublesOf(const Step& step) {
    std::vector<Trouble> troubles = {{"refused", "refuse", 0, false, 0},
                                     {"pulled out", "node_gone", 0, true, 0},
                                     {"power lost", "power_loss", 0, true, 0.5}};
    if (step.name == "erase" || step.name == "write") {
        troubles.push_back({"refused", "refuse_late", 0, false, 1});
        troubles.push_back({"power lost", "power_loss", 1, true, 0});
    }
    return troubles;
}

// The flash as the package's bytes and the transfers make it, with nothing of the simulation.
class ExpectedFlash {
  public:
    explicit ExpectedFlash(Bytes before) : bytes(std::move(before)), m_image(kFlashBytes, 0xFF) {
        const Bytes header = UsbPackage().Header();
        const Bytes data = UsbPackage().Data(0);
        std::copy(header.begin(), header.end(), m_image.begin() + kHeaderAt);
        std::copy(data.begin(), data.end(), m_image.begin() + kMainAt);
    }
    void Apply(const Step& step, double done) {
        const auto size = static_cast<uint32_t>(step.size * done);
        const uint32_t end = step.address + size;
        if (step.name == "erase" && size > 0)
            for (uint32_t at = step.address / kSectorBytes * kSectorBytes;
                 at < (end + kSectorBytes - 1) / kSectorBytes * kSectorBytes; ++at)
                bytes[at] = 0xFF;
        if (step.name == "write")
            for (uint32_t at = step.address; at < end; ++at) bytes[at] &= m_image[at];
    }
    Bytes bytes;

  private:
    Bytes m_image;
};

std::string Message(const ToolRun& run) {
    static const std::map<std::string, std::string> kMessages = {
        {"nothing listed", "`total 0, need upgrade …`"},
        {"erase failed", "`error (erasing at …%).`"},
        {"write failed", "`error (writting at …%).`"},
        {"verify failed", "`error (verifying at …%).`"},
        {"unknown reason", "`error (unknow reason).`"},
        {"reconfiguration failed", "`Set post reconfig failed`"},
        {"not needed", "`Needn't upgrade`"},
        {"device refused", "`device … isn't a pelix or lumo capture device`"},
        {"silent", "none"},
    };
    EXPECT_EQ("", run.errors);
    const std::string outcome = Outcome({run.output, run.status});
    return kMessages.count(outcome) != 0 ? kMessages.at(outcome) : outcome;
}

std::string VersionText(uint32_t version) {
    if (version == kGolden) return "the factory's";
    return version == kRunning ? "the old one" : version == kNew ? "the new one" : "unknown";
}

// What is left of earlier firmware, so that what must be erased is not blank anyway.
void FillWithOld(UsbDevices& usb) {
    const auto device = usb.Device();
    const Bytes old = Payload(3 * kSectorBytes, 5);
    for (const uint32_t at : {kMainAt, kClearAt})
        ASSERT_TRUE(device->Flash().Program(at, old.data(), static_cast<uint32_t>(old.size())));
}

// A row of the table, without its count.
std::string Recover(const std::vector<Step>& steps, size_t position, const Trouble& trouble) {
    const Step& step = steps[position];
    const std::string what =
        trouble.kind + " at " + step.name + " " + std::to_string(step.nth) + ", " + trouble.name;
    UsbDevices usb;
    UsbPackage().Write(usb.Folder() / "t.qvf");
    usb.Run({"-l"});
    FillWithOld(usb);
    ExpectedFlash expected(usb.Flash());
    const ToolRun first =
        usb.Run({"-y", "-a"}, "transfer = \"" + step.name +
                                  "\"\nnth = " + std::to_string(step.nth) + "\nkind = \"" +
                                  trouble.kind + "\"\nvalue = " + std::to_string(trouble.value));
    const size_t asked = usb.Transfers().size();
    if (step.name != "0x01" && step.name != "0x02") {
        EXPECT_EQ(position + 1, asked) << "nothing follows: " << what;
    }
    for (size_t i = 0; i < position; ++i) expected.Apply(steps[i], 1);
    // A listing that was disturbed once may be followed by the whole upgrade.
    const bool went = Outcome({first.output, first.status}) == "reconfiguration failed";
    expected.Apply(step, went ? 1 : trouble.done);
    if (went)
        for (size_t i = position + 1; i < steps.size(); ++i) expected.Apply(steps[i], 1);
    EXPECT_TRUE(expected.bytes == usb.Flash()) << "flash: " << what;
    std::string came = "as before";
    if (trouble.plugged) came = VersionText(usb.PowerCycle());
    const ToolRun second = usb.Run({"-y", "-a"});
    EXPECT_EQ(kNew, usb.PowerCycle()) << what;
    ExpectedFlash whole(expected.bytes);
    for (const Step& each : steps) whole.Apply(each, 1);
    EXPECT_TRUE(whole.bytes == usb.Flash()) << "not complete: " << what;
    return std::string(trouble.name) + " | " + kUsbPhases[step.phase] + " | " + Message(first) +
           " | " + came + " | " + Message(second) + " | complete";
}

std::vector<Step> GoodSteps() {
    UsbDevices usb;
    UsbPackage().Write(usb.Folder() / "t.qvf");
    EXPECT_EQ("`Set post reconfig failed`", Message(usb.Run({"-y", "-a"})));
    return StepsOf(usb.Transfers());
}

const std::string& Table() {
    static const std::string kTable = [] {
        const std::vector<Step> steps = GoodSteps();
        std::vector<std::pair<size_t, Trouble>> cases;
        for (size_t i = 0; i < steps.size(); ++i)
            for (const Trouble& trouble : TroublesOf(steps[i])) cases.emplace_back(i, trouble);
        std::mutex mutex;
        std::map<std::tuple<std::string, size_t, std::string>, int> rows;
        InParallel(cases.size(), [&](size_t i) {
            const auto& [position, trouble] = cases[i];
            const std::string row = Recover(steps, position, trouble);
            const std::lock_guard lock(mutex);
            ++rows[{trouble.name, steps[position].phase, row}];
        });
        std::string text =
            "| the device is | while | message | firmware when plugged in again | message of the "
            "next run | then | runs |\n|---|---|---|---|---|---|---|\n";
        for (const auto& [row, count] : rows)
            text += "| " + std::get<2>(row) + " | " + std::to_string(count) + " |\n";
        return text + "| all | | | | | | " + std::to_string(cases.size()) + " |\n";
    }();
    return kTable;
}

TEST(UsbSweep, AtEveryTransferIsRecoveredAsTheTableSays) {
    for (const char* phase : kUsbPhases)
        for (const char* trouble : {"refused", "pulled out", "power lost"})
            EXPECT_THAT(Table(), testing::HasSubstr(std::string(trouble) + " | " + phase));
    ExpectTableInDocument("usb", Table());
}

}  // namespace
}  // namespace qvtest
