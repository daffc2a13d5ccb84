#include "SweptCards.h"

#include <algorithm>

#include "CardsState.h"

namespace qvtest {
namespace {

constexpr uint32_t kSafeDistance = 4096;
constexpr uint32_t kSectorSize = 4096;

std::vector<std::string> MetLines(const RefDriver& driver) {
    std::vector<std::string> lines;
    for (const auto& [kind, call] : driver.met)
        lines.push_back(std::string(qvsim::FaultKindName(kind)) + " " + call.name + " board=" +
                        std::to_string(call.board) + " channel=" + std::to_string(call.channel));
    return lines;
}

// Further ones may stay unmet: a run that ends early asks some boards nothing.
bool MetFirst(const RefDriver& driver, const qvsim::Fault& fault) {
    if (driver.met.empty()) return false;
    const auto& [kind, call] = driver.met.front();
    return kind == fault.effect.kind && call.name == fault.request && call.nth == fault.nth &&
           call.board == fault.board && call.channel == fault.channel;
}

}  // namespace

std::vector<std::string> Requests(qvsim::SimRig& rig) {
    std::vector<std::string> lines;
    for (std::string line : rig.Journal()) {
        if (line.ends_with("ENOENT")) continue;
        if (const size_t at = line.find(" crc="); at != line.npos)
            line.erase(at, line.find(' ', at + 1) - at);
        lines.push_back(line);
    }
    return lines;
}

// What a process leaves open is closed when it ends.
std::vector<std::string> Ended(std::vector<std::string> lines) {
    std::vector<std::string> open;
    for (const std::string& line : lines) {
        const size_t end = line.find(" = ");
        if (line.starts_with("open ") && line.ends_with(" = 0"))
            open.push_back(line.substr(5, end - 5));
        if (!line.starts_with("close ")) continue;
        const auto found = std::find(open.begin(), open.end(), line.substr(6, end - 6));
        if (found != open.end()) open.erase(found);
    }
    for (const std::string& node : open) lines.push_back("close " + node + " = 0");
    return lines;
}

void ForgetTroubles(qvsim::SimRig& rig) {
    qvsim::CardsState state;
    ASSERT_EQ("", qvsim::LoadState(rig.Dir(), state));
    state.faults.clear();
    // The driver has found what vanished again.
    state.eventNodeGone = false;
    for (qvsim::BoardState& board : state.boards)
        for (qvsim::ChannelState& channel : board.channels) channel.gone = false;
    ASSERT_EQ("", qvsim::SaveState(rig.Dir(), state));
}

bool HoldsImage(const Bytes& flash, const PackageBuilder& package, uint32_t firmware, bool safe) {
    const Bytes header = package.Header();
    const auto same = [&](size_t at, const Bytes& bytes) {
        return std::equal(bytes.begin(), bytes.end(), flash.begin() + static_cast<ptrdiff_t>(at));
    };
    if (!same(firmware + (safe ? kSafeDistance : 0), header)) return false;
    for (size_t i = 0; i < header.at(156); ++i) {
        const size_t entry = 157 + 28 * i;
        const std::string name(header.begin() + static_cast<ptrdiff_t>(entry),
                               header.begin() + static_cast<ptrdiff_t>(entry + 16));
        if ((name.compare(0, 8, "Upgrade.") == 0) != safe) continue;
        const size_t address = header.at(entry + 16) |
                               static_cast<size_t>(header.at(entry + 17)) << 8 |
                               static_cast<size_t>(header.at(entry + 18)) << 16;
        Bytes data = package.Data(i);
        if (name.find(".CLR") != name.npos) data.assign(data.size(), 0xFF);
        if (!same(address, data)) return false;
    }
    return true;
}

SweptCards::SweptCards(const Scenario& scenario, const RefOptions& options,
                       const std::vector<qvsim::Fault>& faults, const std::string& what)
    : m_scenario(scenario),
      m_options(options),
      m_faults(faults),
      m_what(scenario.name + ", " + testing::PrintToString(Arguments(options)) + ", " + what) {
    AddBoards(scenario, &m_rig);
    for (const qvsim::Fault& fault : faults) m_rig.AddFault(fault);
    LayOut(scenario, m_rig);
}

RefRun SweptCards::RunWith(const PackageBuilder& package, const RefOptions& options) {
    package.Write(m_folder / "p.qvf");
    RefWorld world = WorldOf(m_scenario);
    world.flashes = Flashes(m_scenario, m_rig);
    for (RefChannel& channel : world.channels)
        channel.version = Version(channel.board, channel.channel);
    RefDriver driver(world, m_faults);
    const RefRun expected = RunReference(driver, package.File(), options);
    m_rig.ClearJournal();
    const ToolRun run = m_folder.ThroughPipe(m_rig, Arguments(options));
    EXPECT_EQ(expected.output, run.output) << m_what;
    EXPECT_EQ(expected.status, run.status) << m_what;
    EXPECT_EQ("", run.errors) << m_what;
    EXPECT_EQ(Ended(driver.journal), Requests(m_rig)) << m_what;
    EXPECT_EQ(std::vector<std::string>(), m_folder.Commands()) << m_what;
    CompareFlash(driver);
    // No case passes because its fault did not happen.
    if (!m_faults.empty()) {
        EXPECT_TRUE(MetFirst(driver, m_faults.front())) << m_what;
        EXPECT_EQ(MetLines(driver), m_rig.MetFaults()) << m_what;
    }
    NoteBegun(driver);
    return expected;
}

void SweptCards::CompareFlash(const RefDriver& driver) {
    std::vector<Bytes> actual = Flashes(m_scenario, m_rig);
    for (const RefTorn& torn : driver.torn) {
        const auto begin = actual.at(torn.flash).begin() + torn.begin;
        const Bytes sector(begin, begin + kSectorSize);
        EXPECT_NE(torn.before, sector) << "not touched: " << m_what;
        EXPECT_NE(Bytes(kSectorSize, 0xFF), sector) << "blank: " << m_what;
        const auto expected = driver.world.flashes.at(torn.flash).begin() + torn.begin;
        std::copy(expected, expected + kSectorSize, begin);
    }
    EXPECT_TRUE(driver.world.flashes == actual) << "flash: " << m_what;
}

void SweptCards::NoteBegun(const RefDriver& driver) {
    for (const RefCall& call : driver.calls) {
        if (call.name != "EraseFirmwareData") continue;
        for (const RefChannel& channel : driver.world.channels) {
            if (channel.board != call.board || channel.channel != call.channel) continue;
            m_begun[channel.node][0] |= call.offset == channel.firmware;
            m_begun[channel.node][1] |= call.offset == channel.firmware + kSafeDistance;
        }
    }
}

void SweptCards::ForgetTroubles() {
    m_faults.clear();
    qvtest::ForgetTroubles(m_rig);
}

std::vector<RefChannel> SweptCards::Selected() const {
    std::vector<RefChannel> channels;
    for (const RefChannel& channel : WorldOf(m_scenario).channels) {
        if (m_options.device && channel.node != 0) continue;
        if (channel.lumo && channel.channel != 0) continue;
        channels.push_back(channel);
    }
    return channels;
}

bool SweptCards::Complete() {
    const std::vector<Bytes> flashes = Flashes(m_scenario, m_rig);
    for (const RefChannel& channel : Selected()) {
        const std::array<bool, 2> begun = m_begun[channel.node];
        if (!begun[0] && !begun[1]) return false;
        for (const bool safe : {false, true})
            if (begun[safe] &&
                !HoldsImage(flashes.at(channel.flash), m_scenario.package, channel.firmware, safe))
                return false;
    }
    return true;
}

void SweptCards::BringBack() {
    m_what += ", brought back";
    RefOptions forced = m_options;
    forced.force = true;
    EXPECT_EQ("ok", Outcome(RunWith(m_scenario.earlier.value(), forced))) << m_what;
    PowerCycle();
    m_begun.clear();
    EXPECT_EQ("ok", Outcome(Run())) << m_what;
    const std::vector<Bytes> flashes = Flashes(m_scenario, m_rig);
    for (const RefChannel& channel : Selected()) {
        EXPECT_TRUE(m_begun[channel.node][0]) << m_what;
        EXPECT_TRUE(
            HoldsImage(flashes.at(channel.flash), m_scenario.package, channel.firmware, false))
            << m_what;
    }
    PowerCycle();
    for (const RefChannel& channel : Selected())
        EXPECT_EQ(kNew, Version(channel.board, channel.channel)) << m_what;
}

}  // namespace qvtest
