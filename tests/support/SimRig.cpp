#include "SimRig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "Door.h"
#include "OpenRecord.h"

namespace qvsim {
namespace {

// If the rig cannot be set up, the test setup is broken; that is not a test failure.
void Require(const std::string& error) {
    if (error.empty()) return;
    ADD_FAILURE() << "simulated cards: " << error;
    std::abort();
}

const BoardState& BoardOf(const CardsState& state, int index) {
    for (const BoardState& board : state.boards)
        if (board.index == index) return board;
    Require("no board " + std::to_string(index));
    std::abort();
}

}  // namespace

BoardBuilder::BoardBuilder(const std::string& family) { m_plan.family = family; }
BoardBuilder& BoardBuilder::Board(int index) {
    m_plan.index = index;
    return *this;
}
BoardBuilder& BoardBuilder::Channels(int count) {
    m_plan.channels = count;
    return *this;
}
BoardBuilder& BoardBuilder::Product(const std::string& name) {
    m_plan.product = name;
    return *this;
}
BoardBuilder& BoardBuilder::ProductCode(uint16_t code) {
    m_plan.productCode = code;
    return *this;
}
BoardBuilder& BoardBuilder::Hardware(char version) {
    m_plan.hardware = version;
    return *this;
}
BoardBuilder& BoardBuilder::Serial(const std::string& serial) {
    m_plan.serial = serial;
    return *this;
}
BoardBuilder& BoardBuilder::Firmware(int major, int minor) {
    m_plan.firmware = Version(major, minor);
    return *this;
}
BoardBuilder& BoardBuilder::Stored(int major, int minor, uint16_t compatibilityCode) {
    m_plan.stored = StoredPlan{Version(major, minor), compatibilityCode};
    return *this;
}
BoardBuilder& BoardBuilder::NoStoredHeader() {
    m_plan.noStoredHeader = true;
    return *this;
}
BoardBuilder& BoardBuilder::FirmwareOffset(uint32_t offset) {
    m_plan.firmwareOffset = offset;
    return *this;
}
BoardBuilder& BoardBuilder::FlashSize(uint32_t bytes) {
    m_plan.flashSize = bytes;
    return *this;
}
BoardBuilder& BoardBuilder::Golden(int major, int minor) {
    m_plan.golden = Version(major, minor);
    return *this;
}
BoardBuilder& BoardBuilder::FirstNode(int node) {
    m_plan.firstNode = node;
    return *this;
}
BoardBuilder& BoardBuilder::Video(uint32_t width, uint32_t height, double framesPerSecond) {
    m_plan.video = {width, height, framesPerSecond};
    return *this;
}
BoardBuilder& BoardBuilder::Audio(double framesPerSecond) {
    m_plan.audio.framesPerSecond = framesPerSecond;
    return *this;
}
BoardBuilder& BoardBuilder::Signal(uint32_t atMilliseconds, bool present) {
    m_plan.signal.push_back({atMilliseconds, present});
    return *this;
}
BoardBuilder& BoardBuilder::RawInfo(std::function<void(_QVCAP_CHANNEL_INFO&)> edit) {
    return RawChannel([edit = std::move(edit)](ChannelState& channel) { edit(channel.info); });
}
BoardBuilder& BoardBuilder::RawChannel(std::function<void(ChannelState&)> edit) {
    m_plan.editChannel = std::move(edit);
    return *this;
}

BoardBuilder Pelix() { return BoardBuilder("Pelix Capture"); }
BoardBuilder Lumo() { return BoardBuilder("Lumo Capture"); }
BoardBuilder Tavo() { return BoardBuilder("Tavo Capture"); }

SimRig::SimRig() {
    const char* const driver = std::getenv("QV_TEST_DRIVER");
    if (!driver || std::string(driver) == "kind") return;
    if (std::string(driver) != "hostile")
        Require(std::string("QV_TEST_DRIVER is \"kind\" or \"hostile\", not ") + driver);
    m_plan.driver = {.reuseHandles = true, .afterStop = AfterStop::kWriteAtOnce};
}

SimRig::~SimRig() { Detach(); }

SimRig& SimRig::Add(const BoardBuilder& board) {
    m_plan.boards.push_back(board.m_plan);
    return *this;
}
SimRig& SimRig::ForeignNode(int node) {
    m_plan.foreignNodes.push_back(node);
    return *this;
}
SimRig& SimRig::NoEventNode() {
    m_plan.eventNode = false;
    return *this;
}
SimRig& SimRig::JournalLimit(uint32_t bytes) {
    m_plan.journalLimit = bytes;
    return *this;
}
SimRig& SimRig::Delays(const Latencies& latencies) {
    m_plan.latencies = latencies;
    return *this;
}
SimRig& SimRig::Driver(const DriverWays& ways) {
    m_plan.driver = ways;
    return *this;
}
SimRig& SimRig::AddFault(const Fault& fault) {
    if (m_model)
        m_model->AddFault(fault);
    else
        m_plan.faults.push_back(fault);
    return *this;
}

const std::string& SimRig::Dir() {
    if (m_inMemory) Require("cards in memory have no directory and no journal");
    if (!m_dir) {
        m_dir.emplace("qvsim");
        Require(CompletePlan(m_plan));
        Require(LayOut(m_plan, m_dir->Path()));
    }
    return m_dir->Path();
}

void SimRig::Attach() {
    if (ThroughServedNodes()) {
        Detach();
        Require(Model::Load(Dir(), m_model));
        m_serving = std::make_unique<ServingThread>(m_model);
        return;
    }
    Require(qvsim::Attach(Dir()));
    m_model = CurrentModel();
}

void SimRig::AttachInMemory() {
    Detach();
    Require(CompletePlan(m_plan));
    Require(MakeInMemory(m_plan, m_model));
    m_inMemory = true;
    qvsim::Attach(m_model);
}

void SimRig::Detach() {
    if (!m_model) return;
    if (m_serving) {
        m_serving.reset();
        m_model->ShutDown();
    }
    qvsim::Detach();
    m_model.reset();
    m_inMemory = false;
}

Model& SimRig::Cards() {
    if (!m_model) Require("the rig is not attached");
    if (m_serving) m_serving->Settle();
    return *m_model;
}

std::vector<JournalLine> SimRig::JournalLines() {
    if (m_serving) m_serving->Settle();
    CloseForTheDead(Dir());
    std::vector<JournalLine> lines;
    ReadJournal(Dir(), lines);
    std::erase_if(lines, [&](const auto& line) { return line.sequence <= m_journalFrom; });
    return lines;
}

std::vector<std::string> SimRig::Journal() {
    std::vector<std::string> lines;
    for (const JournalLine& line : JournalLines()) lines.push_back(line.Comparable());
    return lines;
}

std::vector<std::string> SimRig::KernelJournal() {
    std::vector<std::string> lines;
    std::vector<std::string> open;  // by the process of the line before
    int process = 0;
    const auto leave = [&] {
        for (const std::string& node : open) lines.push_back("close " + node + " = 0");
        open.clear();
    };
    for (const JournalLine& line : JournalLines()) {
        if (line.pid != process) leave();
        process = line.pid;
        if (line.action == "open" && line.result == "-1 ENOENT") continue;
        if (line.action == "open" && line.result == "0") open.push_back(line.node);
        const auto found = std::find(open.begin(), open.end(), line.node);
        if (line.action == "close" && found != open.end()) open.erase(found);
        lines.push_back(line.Comparable());
    }
    leave();
    return lines;
}

void SimRig::ClearJournal() {
    for (const JournalLine& line : JournalLines())
        m_journalFrom = std::max(m_journalFrom, line.sequence);
}

std::vector<std::string> SimRig::MetFaults() {
    if (m_serving) m_serving->Settle();
    std::vector<std::string> lines;
    std::istringstream text(ReadText(MetFaultsPath(Dir())));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

std::vector<uint8_t> SimRig::Flash(int board, int channel, uint32_t offset, uint32_t length) {
    const auto read = [&](const NorFlash& flash) {
        std::vector<uint8_t> bytes(length);
        if (!flash.Read(offset, bytes.data(), length)) Require("flash range cannot be read");
        return bytes;
    };
    if (m_inMemory) {
        const NorFlash* const flash = m_model->Flash(board, channel);
        if (!flash) Require("no board " + std::to_string(board));
        return read(*flash);
    }
    const CardsState state = State();
    NorFlash flash;
    const BoardState& found = BoardOf(state, board);
    Require(flash.Open(Dir() + "/" + FlashFileName(found, channel), found.flashSize));
    return read(flash);
}

void SimRig::PowerCycle() {
    if (m_model) {
        m_model->PowerCycle();
        return;
    }
    std::shared_ptr<Model> model;
    Require(Model::Load(Dir(), model));
    model->PowerCycle();
}

uint32_t SimRig::RunningVersion(int board, int channel) {
    const CardsState state = State();
    return BoardOf(state, board).channels.at(static_cast<size_t>(channel)).info.firmwareVersion;
}

CardsState SimRig::State() {
    if (m_inMemory) return m_model->State();
    CardsState state;
    Require(LoadState(Dir(), state));
    return state;
}

}  // namespace qvsim
