// A rig of simulated cards for one test: a temporary state directory, cards described by fluent
// builders, and the door that makes the test's own process see them in /dev.
//
// Link qvsim_rig: the test program then contains open(), ioctl() and the other interposed
// functions, which pass everything through while no rig is attached. For real nodes see
// ServedCards.h. One attached rig at a time; a rig belongs to the test's thread, the cards may be
// used from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CardsPlan.h"
#include "Fault.h"
#include "Journal.h"
#include "Model.h"
#include "ServedCards.h"
#include "TempFolder.h"

namespace qvsim {

class BoardBuilder {
  public:
    explicit BoardBuilder(const std::string& family);

    BoardBuilder& Board(int index);  // default: the next free one
    BoardBuilder& Channels(int count);
    BoardBuilder& Product(const std::string& name);
    BoardBuilder& ProductCode(uint16_t code);
    BoardBuilder& Hardware(char version);
    BoardBuilder& Serial(const std::string& serial);
    BoardBuilder& Firmware(int major, int minor);  // running version
    // The header in flash; default: the running version with compatibility code 1.
    BoardBuilder& Stored(int major, int minor, uint16_t compatibilityCode);
    BoardBuilder& NoStoredHeader();
    BoardBuilder& FirmwareOffset(uint32_t offset);
    BoardBuilder& FlashSize(uint32_t bytes);
    BoardBuilder& Golden(int major, int minor);
    BoardBuilder& FirstNode(int node);  // default: after the earlier nodes
    BoardBuilder& Video(uint32_t width, uint32_t height, double framesPerSecond);  // 0: no pacing
    BoardBuilder& Audio(double framesPerSecond);                                   // 0: no pacing
    BoardBuilder& Signal(uint32_t atMilliseconds, bool present);
    // Changes each channel's record before it is written: unterminated texts, odd indices.
    BoardBuilder& RawInfo(std::function<void(_QVCAP_CHANNEL_INFO&)> edit);
    // The same for all records of a channel, including its family and the flash layout.
    BoardBuilder& RawChannel(std::function<void(ChannelState&)> edit);

  private:
    friend class SimRig;
    BoardPlan m_plan;
};

BoardBuilder Pelix();  // one flash per channel
BoardBuilder Lumo();   // one flash for all channels
BoardBuilder Tavo();

class SimRig {
  public:
    SimRig();
    ~SimRig();
    SimRig(const SimRig&) = delete;
    SimRig& operator=(const SimRig&) = delete;

    SimRig& Add(const BoardBuilder& board);
    SimRig& ForeignNode(int node);
    SimRig& NoEventNode();
    SimRig& JournalLimit(uint32_t bytes);        // default: none
    SimRig& Delays(const Latencies& latencies);  // default: none
    SimRig& Driver(const DriverWays& ways);      // default: well-behaved
    // Before Dir(): written into the state. Attached: takes effect at once.
    SimRig& AddFault(const Fault& fault);

    const std::string& Dir();  // writes the state on first use
    void Attach();             // the door is open until Detach() or the end of the rig
    // The same without a state directory: quick, no journal, gone with Detach(). Every call makes
    // new cards.
    void AttachInMemory();
    void Detach();
    Model& Cards();  // attached only; first serves all requests made so far

    // Since the last ClearJournal(), without sequence number, process and descriptor:
    // "open /dev/video0 = 0", "ioctl /dev/video0 EraseFirmwareData offset=0x100000 size=65536 = 0".
    std::vector<std::string> Journal();
    std::vector<JournalLine> JournalLines();
    // The journal as a kernel would produce it, whatever the door: without opens of nodes that do
    // not exist, and with a close for each node that a process leaves open when it ends.
    std::vector<std::string> KernelJournal();
    void ClearJournal();
    // Every fault that was met, in order: "slow open board=0 channel=1".
    std::vector<std::string> MetFaults();

    std::vector<uint8_t> Flash(int board, int channel, uint32_t offset, uint32_t length);
    void PowerCycle();
    // The running version of a channel, from the state directory.
    uint32_t RunningVersion(int board, int channel);

  private:
    // From the state directory, or from the cards in memory.
    CardsState State();

    CardsPlan m_plan;
    std::optional<qvtest::TempFolder> m_dir;  // made on first use
    bool m_inMemory = false;
    std::shared_ptr<Model> m_model;
    std::unique_ptr<ServingThread> m_serving;
    uint64_t m_journalFrom = 0;
};

}  // namespace qvsim
