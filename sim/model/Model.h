// The simulated cards of one state directory, alive: boards, flash, events, timers, journal.
//
// Knows nothing of request numbers nor of how a caller gets here; the protocol and the doors do.
// Thread rule: public functions lock, except those for the protocol, which need the lock held. At
// most two threads of its own, both started when first needed and ended by ShutDown(): one keeps
// time, one writes pictures.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Card.h"
#include "EventTable.h"
#include "FaultSet.h"
#include "Folder.h"
#include "Journal.h"
#include "MediaSource.h"
#include "Notifications.h"
#include "Timers.h"

namespace qvsim {

// What is alive; everything is 0 when a caller has cleaned up after itself.
struct Alive {
    size_t files = 0;
    size_t events = 0;
    size_t notifications = 0;
    size_t timers = 0;
    size_t images = 0;
    size_t pinnedBuffers = 0;
    size_t captures = 0;  // video and audio captures started and not stopped
    size_t frames = 0;    // asked for, and may still be written into the caller's memory
    bool operator==(const Alive&) const = default;
};

class Model {
  public:
    using Lock = EventTable::Lock;

    // Null, and what went wrong, when the directory holds no usable state.
    static std::shared_ptr<Model> Load(const std::string& dir, std::string& error);
    // Cards with blank flash that live in this process alone: no directory, no journal.
    static std::shared_ptr<Model> InMemory(CardsState state, std::string& error);
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;
    ~Model();

    // --- for doors -------------------------------------------------------------------------
    // True for /dev/qv-event and every /dev/video<number>: the model answers for all of them.
    static bool Answers(const char* path);
    // The same for a name in /dev.
    static bool AnswersName(const char* name);
    // True when such a path exists here.
    bool Exists(const std::string& path);
    // Names in /dev that exist: "video0", "qv-event".
    std::vector<std::string> NodeNames();
    // Null and an errno when the node cannot be opened. `descriptor` is for the journal alone.
    std::shared_ptr<OpenFile> Open(const std::string& path, int& error);
    void JournalOpen(const std::string& path, int descriptor, int error);
    // A descriptor for a file that is to be opened, with these flags of open(2), or -1 and errno;
    // see OpenRecord.h. It is dropped, closed already, or given to the file by JournalOpen().
    int MakeDescriptor(int flags, std::string& record);
    void DropDescriptor(const std::string& record);
    void JournalOpen(OpenFile& file, const std::string& record, int descriptor);
    // What a descriptor stands for that this process was started with: its link in /proc. Null when
    // it is no node.
    std::shared_ptr<OpenFile> Adopt(const std::string& link);
    // In a child after fork(), by the thread that called it, with the lock held: the threads are
    // the parent's, and so is the frame memory.
    void BeginInChild();
    // Empty: in memory alone.
    std::string Dir() const { return m_folder ? m_folder->Dir() : std::string(); }
    // The last descriptor of the file in this process is closed.
    void Close(const std::shared_ptr<OpenFile>& file, int descriptor);

    // --- for tests and the command line ----------------------------------------------------
    // Channels are named by board index and by their position on the board.
    void PowerCycle();
    void AddFault(const Fault& fault);
    void ClearFaults();
    void RaiseNotification(int board, int channel, uint64_t bits);
    void SetSignal(int board, int channel, bool present);
    // Signals the capture event while the frame in work is not complete.
    void InterruptFrame(int board, int channel);
    // The record of the last such request as it came from the caller; empty when there was none.
    // Requests of the event node are found under board -1.
    Bytes LastRecord(int board, int channel, const std::string& request);
    // Null when there is no such channel.
    NorFlash* Flash(int board, int channel);
    // Replaces what a get request answers.
    void SetRecord(int board, int channel, const std::string& key, const Bytes& record);
    Alive CountAlive();
    // Stops the device clocks, so that timers fire by AdvanceClock() alone. 100 ns units.
    void FreezeClock();
    void AdvanceClock(int64_t units);
    // Ends every wait with ENODEV and stops what runs on its own; the model stays readable.
    void ShutDown();

    const CardsState& State() const { return m_state; }

    // --- for the protocol, lock held -------------------------------------------------------
    std::mutex& Mutex() { return m_mutex; }
    EventTable& Events() { return m_events; }
    Notifications& Notifies() { return m_notifications; }
    Timers& DriverTimers() { return m_timers; }
    // Counts a request, or an "open", on every fault; what hits it. Null: the event node. What is
    // met is written down in the folder of the cards, except for kSlow: only when the caller has
    // let the time pass, by NoteMet().
    std::vector<FaultEffect> MeetFaults(const std::string& request, const Channel* channel);
    void NoteMet(FaultKind kind, const std::string& request, const Channel* channel) const;
    // A node vanishes until the next power cycle. Null: the event node.
    void LoseNode(Channel* channel);
    bool IsGone(const Channel* channel) const {
        return channel ? channel->state->gone : m_state.eventNodeGone;
    }
    // Takes over what other processes on the folder have changed since the last look. Null: nothing
    // of a channel.
    void CatchUp(Channel* channel);
    // Writes down what a request set. False: the disk is full, and nothing was set.
    bool KeepSettings(Channel* channel);
    // Whether a request can be written down. False, and said once, when the disk is full.
    bool HasRoom();
    // Held while files of the folder change.
    Folder::Lock LockFolder() { return Folder::Lock(m_folder.get()); }
    Journal& RequestJournal() { return m_journal; }
    const Latencies& Delays() const { return m_state.latencies; }
    const DriverWays& Ways() const { return m_state.driver; }
    std::map<std::string, Bytes>& EventRecords() { return m_eventRecords; }
    int64_t Now() const { return m_time.Now(); }
    bool IsShutDown() const { return m_shutDown; }
    HandlePool& ImageHandles() { return m_imageHandles; }
    // The board is dead from now on, for every process.
    void LosePower(Board& board);
    MediaSource& Media() { return m_media; }
    // Something with a time changed: lets happen what is due, and sees to it that the rest will.
    void Kick();

  private:
    Model() = default;
    std::string Build();
    std::string BuildBoard(BoardState& state);
    void TakeOnDriverWays();
    Channel* FindChannel(int board, int channel);
    Channel* ChannelOfNode(const std::string& path);
    // Why such a node cannot be opened, faults aside; 0 when it can.
    int OpenError(const std::string& path, const Channel* owner) const;
    int OpenFault(const std::vector<FaultEffect>& effects, Channel* owner);
    bool IsForeign(const std::string& path) const;
    void TakeOverState(const CardsState& fresh);
    // Changes the state of the folder for all its processes. False when it cannot be written: then
    // this process goes on with it alone.
    template <class Change>
    bool ChangeState(Change change);
    void Complain(const std::string& what, int error);
    std::optional<int64_t> RunDue();
    void KeepTime();
    uint32_t& SettingsGeneration(const Channel& channel) const;
    bool OpenSettings(Channel& channel) const;
    std::string LoadSettings(Channel& channel) const;
    std::string SettingsPath(const Channel& channel) const;

    std::mutex m_mutex;
    std::unique_ptr<Folder> m_folder;  // null: in memory alone
    CardsState m_state;
    uint32_t m_generation = 0;  // of the state file that is in `m_state`
    std::vector<std::unique_ptr<Board>> m_boards;
    std::vector<std::unique_ptr<Channel>> m_channels;
    std::vector<std::shared_ptr<OpenFile>> m_files;
    TimeSource m_time;
    EventTable m_events;
    Notifications m_notifications;
    Timers m_timers;
    MediaSource m_media{m_mutex, m_events, m_notifications};
    FaultSet m_faults;
    Journal m_journal;
    std::map<std::string, Bytes> m_eventRecords;
    HandlePool m_imageHandles{0x4001};
    bool m_shutDown = false;
    bool m_complained = false;
    std::condition_variable m_timeChanged;
    std::thread m_timekeeper;  // started when something is due for the first time
};

}  // namespace qvsim
