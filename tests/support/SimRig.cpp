#include "SimRig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "Door.h"
#include "OpenRecord.h"

namespace qvsim {
namespace {

// A rig that cannot be set up is a broken test, not a failing one.
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

BoardBuilder::BoardBuilder(const std::string& family) { plan_.family = family; }
BoardBuilder& BoardBuilder::Board(int index) {
    plan_.index = index;
    return *this;
}
BoardBuilder& BoardBuilder::Channels(int count) {
    plan_.channels = count;
    return *this;
}
BoardBuilder& BoardBuilder::Product(const std::string& name) {
    plan_.product = name;
    return *this;
}
BoardBuilder& BoardBuilder::ProductCode(uint16_t code) {
    plan_.productCode = code;
    return *this;
}
BoardBuilder& BoardBuilder::Hardware(char version) {
    plan_.hardware = version;
    return *this;
}
BoardBuilder& BoardBuilder::Serial(const std::string& serial) {
    plan_.serial = serial;
    return *this;
}
BoardBuilder& BoardBuilder::Firmware(int major, int minor) {
    plan_.firmware = Version(major, minor);
    return *this;
}
BoardBuilder& BoardBuilder::Stored(int major, int minor, uint16_t compatibilityCode) {
    plan_.stored = StoredPlan{Version(major, minor), compatibilityCode};
    return *this;
}
BoardBuilder& BoardBuilder::NoStoredHeader() {
    plan_.noStoredHeader = true;
    return *this;
}
BoardBuilder& BoardBuilder::FirmwareOffset(uint32_t offset) {
    plan_.firmwareOffset = offset;
    return *this;
}
BoardBuilder& BoardBuilder::FlashSize(uint32_t bytes) {
    plan_.flashSize = bytes;
    return *this;
}
BoardBuilder& BoardBuilder::Golden(int major, int minor) {
    plan_.golden = Version(major, minor);
    return *this;
}
BoardBuilder& BoardBuilder::FirstNode(int node) {
    plan_.firstNode = node;
    return *this;
}
BoardBuilder& BoardBuilder::Video(uint32_t width, uint32_t height, double framesPerSecond) {
    plan_.video = {width, height, framesPerSecond};
    return *this;
}
BoardBuilder& BoardBuilder::Audio(double framesPerSecond) {
    plan_.audio.framesPerSecond = framesPerSecond;
    return *this;
}
BoardBuilder& BoardBuilder::Signal(uint32_t atMilliseconds, bool present) {
    plan_.signal.push_back({atMilliseconds, present});
    return *this;
}
BoardBuilder& BoardBuilder::RawInfo(std::function<void(_QVCAP_CHANNEL_INFO&)> edit) {
    return RawChannel([edit = std::move(edit)](ChannelState& channel) { edit(channel.info); });
}
BoardBuilder& BoardBuilder::RawChannel(std::function<void(ChannelState&)> edit) {
    plan_.editChannel = std::move(edit);
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
    plan_.driver = {.reuseHandles = true, .afterStop = AfterStop::kWriteAtOnce};
}

SimRig::~SimRig() { Detach(); }

SimRig& SimRig::Add(const BoardBuilder& board) {
    plan_.boards.push_back(board.plan_);
    return *this;
}
SimRig& SimRig::ForeignNode(int node) {
    plan_.foreignNodes.push_back(node);
    return *this;
}
SimRig& SimRig::NoEventNode() {
    plan_.eventNode = false;
    return *this;
}
SimRig& SimRig::JournalLimit(uint32_t bytes) {
    plan_.journalLimit = bytes;
    return *this;
}
SimRig& SimRig::Delays(const Latencies& latencies) {
    plan_.latencies = latencies;
    return *this;
}
SimRig& SimRig::Driver(const DriverWays& ways) {
    plan_.driver = ways;
    return *this;
}
SimRig& SimRig::AddFault(const Fault& fault) {
    if (model_)
        model_->AddFault(fault);
    else
        plan_.faults.push_back(fault);
    return *this;
}

const std::string& SimRig::Dir() {
    if (inMemory_) Require("cards in memory have no directory and no journal");
    if (!dir_) {
        dir_.emplace("qvsim");
        Require(CompletePlan(plan_));
        Require(LayOut(plan_, dir_->Path()));
    }
    return dir_->Path();
}

void SimRig::Attach() {
    if (ThroughServedNodes()) {
        std::string error;
        Detach();
        model_ = Model::Load(Dir(), error);
        Require(error);
        serving_ = std::make_unique<ServingThread>(model_);
        return;
    }
    Require(qvsim::Attach(Dir()));
    model_ = CurrentModel();
}

void SimRig::AttachInMemory() {
    Detach();
    std::string error = CompletePlan(plan_);
    Require(error);
    model_ = MakeInMemory(plan_, error);
    Require(error);
    inMemory_ = true;
    qvsim::Attach(model_);
}

void SimRig::Detach() {
    if (!model_) return;
    if (serving_) {
        serving_.reset();
        model_->ShutDown();
    }
    qvsim::Detach();
    model_.reset();
    inMemory_ = false;
}

Model& SimRig::Cards() {
    if (!model_) Require("the rig is not attached");
    if (serving_) serving_->Settle();
    return *model_;
}

std::vector<JournalLine> SimRig::JournalLines() {
    if (serving_) serving_->Settle();
    CloseForTheDead(Dir());
    std::vector<JournalLine> lines;
    for (const JournalLine& line : ReadJournal(Dir()))
        if (line.sequence > journalFrom_) lines.push_back(line);
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
        journalFrom_ = std::max(journalFrom_, line.sequence);
}

std::vector<std::string> SimRig::MetFaults() {
    if (serving_) serving_->Settle();
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
    if (inMemory_) {
        const NorFlash* const flash = model_->Flash(board, channel);
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
    if (model_) return model_->PowerCycle();
    std::string error;
    const std::shared_ptr<Model> model = Model::Load(Dir(), error);
    Require(error);
    model->PowerCycle();
}

uint32_t SimRig::RunningVersion(int board, int channel) {
    const CardsState state = State();
    return BoardOf(state, board).channels.at(static_cast<size_t>(channel)).info.firmwareVersion;
}

CardsState SimRig::State() {
    if (inMemory_) return model_->State();
    CardsState state;
    Require(LoadState(Dir(), state));
    return state;
}

}  // namespace qvsim
