// One thing goes wrong at every open and request of a `qvcap upgrade`, its own and the tool's, in
// every way that it can, and the power goes at every one. What qvcap says then is what the flash
// holds: never is an image called complete that is not, and a second run ends complete.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <map>

#include "CardsState.h"
#include "QvcapRig.h"

namespace qvtest {
namespace {

using qvsim::CutPoint;
using qvsim::Fault;
using qvsim::FaultEffect;

constexpr uint32_t kFirmware = 0x2000;
constexpr uint32_t kSafeFirmware = kFirmware + 4096;
constexpr uint32_t kFlashSize = 0x40000;
constexpr uint32_t kNew = 0x00010001;

struct Swept {
    const char* name;
    bool lumo;
    uint16_t storedCode;
    uint16_t code;
    bool safe;
};

// The same code stored and offered makes an upgrade a safe one.
const Swept kSwept[] = {{"Normal", false, 1, 1, false},
                        {"Safe", false, 7, 7, true},
                        {"FromAnotherCode", false, 5, 7, false},
                        {"Lumo", true, 1, 1, false}};

PackageBuilder PackageOf(const Swept& swept) {
    return Package()
        .Firmware(1, 1)
        .Compatibility(swept.code)
        .Section("Factory.Main", 0x4000, 66000)
        .Section("Factory.CLR.A", 0x18000, 300)
        .Section("Upgrade.Main", 0x20000, 66000)
        .Section("Upgrade.CLR", 0x38000, 300);
}

// One card, one upgrade, and one thing that goes wrong.
class SweptCard {
  public:
    explicit SweptCard(const Swept& swept) : m_package(PackageOf(swept)) {
        m_rig.cards.Add((swept.lumo ? qvsim::Lumo().Channels(2) : qvsim::Pelix())
                            .Product("CARD")
                            .Firmware(1, 0)
                            .Golden(0, 9)
                            .Stored(1, 0, swept.storedCode)
                            .FirmwareOffset(kFirmware)
                            .FlashSize(kFlashSize));
        m_rig.Write(m_package);
    }

    QvcapRig& Rig() { return m_rig; }
    // The header and all sections of an image stand in the flash, byte for byte.
    bool Holds(bool safe) {
        const size_t first = safe ? 2 : 0;
        const Bytes flash = m_rig.cards.Flash(0, 0, 0, kFlashSize);
        const auto stands = [&](const Bytes& bytes, uint32_t at) {
            return std::equal(bytes.begin(), bytes.end(), flash.begin() + at);
        };
        return stands(m_package.Header(), safe ? kSafeFirmware : kFirmware) &&
               stands(m_package.Data(first), safe ? 0x20000 : 0x4000) &&
               stands(Bytes(300, 0xFF), safe ? 0x38000 : 0x18000);
    }
    bool Runs() { return m_rig.cards.RunningVersion(0, 0) == kNew; }
    std::string State() {
        const std::vector<std::string> states = m_rig.States();
        EXPECT_EQ(1u, states.size());
        return states.empty() ? "" : states[0];
    }
    // The faults are over and nodes are back; boards without power stay so.
    void ForgetTroubles() {
        qvsim::CardsState state;
        ASSERT_EQ("", qvsim::LoadState(m_rig.cards.Dir(), state));
        state.faults.clear();
        for (qvsim::BoardState& board : state.boards)
            for (qvsim::ChannelState& channel : board.channels) channel.gone = false;
        ASSERT_EQ("", qvsim::SaveState(m_rig.cards.Dir(), state));
    }

    // Nothing that is not complete is called so.
    void ExpectTruth(const std::string& what) {
        const std::string state = State();
        const bool whole = Holds(false) || Holds(true);
        const bool isTrue = (state == "staged" && whole && !Runs()) ||
                            (state == "current" && whole && Runs()) ||
                            (state == "upgrade available" && !whole && !Runs()) ||
                            (state == "interrupted" && !Holds(false));
        EXPECT_TRUE(isTrue) << what << ": " << state;
    }

  private:
    PackageBuilder m_package;
    QvcapRig m_rig;
};

// All that the node of the card is asked in a run that goes well: the name, and the how manyth of
// it.
std::vector<std::pair<std::string, int>> CallsOf(const Swept& swept) {
    SweptCard card(swept);
    card.Rig().cards.Dir();
    EXPECT_EQ(0, card.Rig().Upgrade().status);
    EXPECT_TRUE(card.Holds(swept.safe)) << "it goes well";
    std::vector<std::pair<std::string, int>> calls;
    std::map<std::string, int> counts;
    for (const qvsim::JournalLine& line : card.Rig().cards.JournalLines()) {
        if (line.node != "/dev/video0" || line.action == "close") continue;
        const std::string name = line.action == "open" ? "open" : line.request;
        calls.emplace_back(name, ++counts[name]);
    }
    return calls;
}

std::vector<FaultEffect> EffectsOn(const std::string& call) {
    std::vector<FaultEffect> effects = {qvsim::Refuse(EIO), qvsim::NodeGone()};
    if (call == "ReadFirmwareData")
        effects.insert(effects.end(), {qvsim::FlipBit(3), qvsim::ShortRead(5)});
    if (call == "WriteFirmwareData")
        effects.insert(effects.end(), {qvsim::StuckBits(0x10), qvsim::Half()});
    if (call == "EraseFirmwareData")
        effects.insert(effects.end(), {qvsim::NotBlank(), qvsim::Half()});
    return effects;
}

class UpgradeSweepTest : public testing::TestWithParam<Swept> {
  protected:
    static std::string Text(const std::pair<std::string, int>& call, const FaultEffect& effect) {
        return std::string(qvsim::FaultKindName(effect.kind)) + "(" + std::to_string(effect.value) +
               ") at " + call.first + " " + std::to_string(call.second);
    }
    static Fault At(const std::pair<std::string, int>& call, const FaultEffect& effect) {
        return {
            .request = call.first, .nth = call.second, .board = 0, .channel = 0, .effect = effect};
    }
    // The next run, without the trouble, ends complete: as bytes, and on the card behind a power
    // cycle.
    static void ExpectMended(SweptCard& card, const std::string& what) {
        const UpgradeRun second = card.Rig().Upgrade();
        EXPECT_THAT(second.status, testing::AnyOf(0, 2)) << what << "\n" << second.output;
        EXPECT_TRUE(card.Holds(false) || card.Holds(true)) << what << "\n" << second.output;
        card.ExpectTruth(what + ", run again");
        card.Rig().cards.PowerCycle();
        EXPECT_EQ("current", card.State()) << what << "\n" << second.output;
        EXPECT_TRUE(card.Runs()) << what;
    }
};

TEST_P(UpgradeSweepTest, AFaultAtEveryRequest) {
    size_t runs = 0;
    for (const auto& call : CallsOf(GetParam()))
        for (const FaultEffect& effect : EffectsOn(call.first)) {
            const std::string what = Text(call, effect);
            SweptCard card(GetParam());
            card.Rig().cards.AddFault(At(call, effect));
            // Every other run may try once more.
            const UpgradeRun run = card.Rig().Upgrade({"--retries", ++runs % 2 == 0 ? "1" : "0"});
            EXPECT_THAT(run.status, testing::AnyOf(0, 1, 3)) << what << "\n" << run.output;
            EXPECT_EQ(1u, card.Rig().cards.MetFaults().size()) << what << ": it was not met";
            EXPECT_TRUE(run.status != 0 || card.Holds(GetParam().safe)) << what << ": done";
            card.ForgetTroubles();
            card.ExpectTruth(what);
            ExpectMended(card, what);
        }
    EXPECT_GT(runs, 60u);
    RecordProperty("runs", static_cast<int>(runs));
}

TEST_P(UpgradeSweepTest, ALossOfPowerAtEveryRequest) {
    size_t cuts = 0;
    for (const auto& call : CallsOf(GetParam()))
        for (const CutPoint point : {CutPoint::kStart, CutPoint::kHalf, CutPoint::kEnd}) {
            const bool changes =
                call.first == "EraseFirmwareData" || call.first == "WriteFirmwareData";
            if (!changes && point != CutPoint::kHalf) continue;
            const std::string what = Text(call, qvsim::PowerLoss(point));
            SweptCard card(GetParam());
            card.Rig().cards.AddFault(At(call, qvsim::PowerLoss(point)));
            const UpgradeRun run = card.Rig().Upgrade();
            EXPECT_THAT(run.status, testing::AnyOf(0, 1, 3)) << what << "\n" << run.output;
            card.Rig().cards.PowerCycle();
            card.ExpectTruth(what);
            ExpectMended(card, what);
            ++cuts;
        }
    EXPECT_GT(cuts, 30u);
    RecordProperty("cuts", static_cast<int>(cuts));
}

INSTANTIATE_TEST_SUITE_P(Cards, UpgradeSweepTest, testing::ValuesIn(kSwept),
                         [](const auto& about) { return std::string(about.param.name); });

}  // namespace
}  // namespace qvtest
