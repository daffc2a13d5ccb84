// Whatever ends an upgrade where: what qvcap status says afterwards is what the flash holds, as
// bytes and as the cards themselves load it. No image that is not complete is ever called staged or
// current.
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "QvcapProcess.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using nlohmann::json;
using qvsim::CutPoint;
using qvsim::Fault;

constexpr uint32_t kFirmware = 0x10000;
constexpr uint32_t kFlashSize = 0x80000;
constexpr uint32_t kNew = 0x00010001;
constexpr uint16_t kCode = 5;

struct Upgrade {
    const char* name;
    uint16_t storedCode;  // that of the package makes the upgrade a safe one
    bool force;
};
constexpr Upgrade kUpgrades[] = {{"normal", 1, false}, {"safe", kCode, false}, {"forced", 1, true}};

PackageBuilder NewPackage() {
    return Package()
        .Firmware(1, 1)
        .Compatibility(kCode)
        .Section("Factory.CLR.1", 0x20000, 5000)
        .Section("Factory.Main", 0x30000, 70000)
        .Section("Upgrade.Main", 0x50000, 66000);
}

// One card on its way through one upgrade that goes wrong.
class CutCard {
  public:
    explicit CutCard(const Upgrade& upgrade) : m_upgrade(upgrade), m_package(NewPackage()) {
        m_rig.Add(qvsim::Pelix()
                      .Firmware(1, 0)
                      .Stored(1, 0, upgrade.storedCode)
                      .Golden(0, 9)
                      .FirmwareOffset(kFirmware)
                      .FlashSize(kFlashSize));
        m_package.Write(m_folder / "a.qvf");
    }

    qvsim::SimRig& Rig() { return m_rig; }
    void Run() {
        std::vector<std::string> arguments = {"-a", "-y"};
        if (m_upgrade.force) arguments.push_back("-f");
        m_folder.Tool(m_rig, arguments);
    }
    json Status() {
        const QvcapRun run = m_folder.Run(m_rig, {"status", "--json"});
        std::string line = run.output;
        std::erase(line, '\n');
        Said() += line + "\n";
        return json::parse(run.output)["cards"].at(0);
    }
    // All that was said in a test, a line for each.
    static std::string& Said() {
        static std::string said;
        return said;
    }
    bool Holds(bool safe) {
        const uint32_t address = kFirmware + (safe ? 4096 : 0);
        if (Flash(address, m_package.Length()) != m_package.Header()) return false;
        if (safe) return Flash(0x50000, 66000) == m_package.Data(2);
        return Flash(0x20000, 5000) == Bytes(5000, 0xFF) &&
               Flash(0x30000, 70000) == m_package.Data(1);
    }
    bool HasMainHeader() { return Flash(kFirmware, 4) == Bytes{'Q', 'V', 'F', 'H'}; }
    uint32_t Running() { return m_rig.RunningVersion(0, 0); }

  private:
    Bytes Flash(uint32_t address, uint32_t size) { return m_rig.Flash(0, 0, address, size); }

    const Upgrade& m_upgrade;
    PackageBuilder m_package;
    qvsim::SimRig m_rig;
    QvcapFolder m_folder;
};

// The state that the bytes of the flash and the running version mean.
std::string Truth(CutCard& card) {
    const bool main = card.Holds(false);
    const bool safe = card.Holds(true);
    const bool runs = card.Running() == kNew;
    if (!main && !card.HasMainHeader()) return "interrupted";
    if (main || safe) return runs ? "current" : "staged";
    return "not complete";
}

void CompareWithTruth(CutCard& card, const std::string& what) {
    const std::string said = card.Status()["state"];
    const std::string truth = Truth(card);
    if (truth == "not complete")
        EXPECT_THAT(said, testing::AnyOf("upgrade available", "interrupted")) << what;
    else
        EXPECT_EQ(truth, said) << what;
}

// Every request on the flash of an upgrade that goes well: its name, and the how manyth of it.
std::vector<std::pair<std::string, int>> Requests(const Upgrade& upgrade) {
    CutCard card(upgrade);
    card.Rig().Dir();
    card.Rig().ClearJournal();
    card.Run();
    EXPECT_TRUE(card.Holds(upgrade.storedCode == kCode)) << "it goes well";
    std::vector<std::pair<std::string, int>> requests;
    std::map<std::string, int> counts;
    for (const qvsim::JournalLine& line : card.Rig().JournalLines())
        if (line.request == "EraseFirmwareData" || line.request == "WriteFirmwareData" ||
            line.request == "ReadFirmwareData" || line.request == "SetPostReconfig")
            requests.emplace_back(line.request, ++counts[line.request]);
    return requests;
}

class CutsE2eTest : public testing::TestWithParam<Upgrade> {
  protected:
    void TearDown() override {
        EXPECT_EQ("", SchemaErrorsOfLines("status.schema.json", CutCard::Said()));
        CutCard::Said().clear();
    }
};

TEST_P(CutsE2eTest, AfterEveryLossOfPowerTheStateIsTheTruth) {
    size_t cuts = 0;
    for (const auto& [request, nth] : Requests(GetParam())) {
        for (const CutPoint point : {CutPoint::kStart, CutPoint::kHalf, CutPoint::kEnd}) {
            const bool changes = request == "EraseFirmwareData" || request == "WriteFirmwareData";
            if (!changes && point != CutPoint::kHalf) continue;
            const std::string what = request + " " + std::to_string(nth) + " point " +
                                     std::to_string(static_cast<int>(point));
            CutCard card(GetParam());
            card.Rig().AddFault(
                {.request = request, .nth = nth, .effect = qvsim::PowerLoss(point)});
            card.Run();
            EXPECT_EQ("unreadable", card.Status()["state"]) << what;
            card.Rig().PowerCycle();
            CompareWithTruth(card, what);
            card.Run();
            CompareWithTruth(card, what + ", run again");
            card.Rig().PowerCycle();
            CompareWithTruth(card, what + ", run again and power-cycled");
            ++cuts;
        }
    }
    EXPECT_GT(cuts, 20u);
}

TEST_P(CutsE2eTest, AfterEveryFailureOfACardThatStaysOnTheStateIsTheTruth) {
    for (const auto& [request, nth] : Requests(GetParam())) {
        std::vector<qvsim::FaultEffect> effects = {qvsim::Refuse(EIO), qvsim::Half()};
        if (request == "WriteFirmwareData") effects.push_back(qvsim::StuckBits(0x10));
        if (request == "EraseFirmwareData") effects.push_back(qvsim::NotBlank());
        if (request == "ReadFirmwareData") effects = {qvsim::FlipBit(3), qvsim::ShortRead(5)};
        if (request == "SetPostReconfig") effects = {qvsim::Refuse(EIO)};
        for (const qvsim::FaultEffect& effect : effects) {
            const std::string what = request + " " + std::to_string(nth) + " effect " +
                                     std::to_string(static_cast<int>(effect.kind));
            CutCard card(GetParam());
            card.Rig().AddFault({.request = request, .nth = nth, .effect = effect});
            card.Run();
            CompareWithTruth(card, what);
            card.Rig().PowerCycle();
            CompareWithTruth(card, what + ", power-cycled");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Upgrades, CutsE2eTest, testing::ValuesIn(kUpgrades),
                         [](const auto& about) { return std::string(about.param.name); });

}  // namespace
}  // namespace qvtest
