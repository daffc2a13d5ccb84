// The running simulated cards: boards, flash, open nodes, events, timers, faults, journal.
//
// Requests work on these, one thread at a time: Model holds the lock, and only Model::Locked gives
// access to them. Knows nothing about request numbers, threads, or how a caller gets here.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
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

// Objects that exist; every count is 0 when a caller has cleaned up.
struct Alive {
    size_t files = 0;
    size_t events = 0;
    size_t notifications = 0;
    size_t timers = 0;
    size_t images = 0;
    size_t pinnedBuffers = 0;
    size_t captures = 0;  // video and audio captures started and not stopped
    size_t frames = 0;    // requested, and may still be written into the caller's memory
    bool operator==(const Alive&) const = default;
};

class LiveCards {
  public:
    using Lock = EventTable::Lock;

    // `mutex`: held in every call; the thread that writes pictures takes it.
    explicit LiveCards(std::mutex& mutex) : m_media(mutex, m_events, m_notifications) {}
    // Once, before anything else: the cards of a state directory, or cards with blank flash that
    // live in this process alone, without a directory and a journal. Returns an error message,
    // empty on success.
    std::string Load(const std::string& dir);
    std::string LayOut(CardsState state);
    LiveCards(const LiveCards&) = delete;
    LiveCards& operator=(const LiveCards&) = delete;

    // Empty: in memory alone.
    std::string Dir() const { return m_folder ? m_folder->Dir() : std::string(); }
    const CardsState& State() const { return m_state; }
    const Latencies& Delays() const { return m_state.latencies; }
    const DriverWays& Ways() const { return m_state.driver; }
    // Reads what other processes on the folder have changed since the last call. Null: nothing of a
    // channel.
    void CatchUp(Channel* channel);
    // Saves what a request has set. False: the disk is full, and nothing was set.
    bool KeepSettings(Channel* channel);
    // Whether a request can be logged. False, with a message once, when the disk is full.
    bool HasRoom();
    // A message, once, that the files of a flash cannot be read or written.
    void ComplainAboutFlash(const Channel& channel, int error);
    // Held while files of the folder change.
    Folder::Lock LockFolder() { return Folder::Lock(m_folder.get()); }

    // --- nodes: paths in /dev, and the files that are open on them ----------------------------
    bool Exists(const std::string& path);
    // Names in /dev that exist: "video0", "qv-event".
    std::vector<std::string> NodeNames();
    // Null: the event node, another driver's, or none at all.
    Channel* ChannelOfNode(const std::string& path);
    // Why such a node cannot be opened, without regard to faults; 0 when it can.
    int OpenError(const std::string& path, const Channel* owner) const;
    // The result of an open after the faults that hit it: an errno, or 0.
    int OpenFault(const std::string& path, const std::vector<FaultEffect>& effects, Channel* owner);
    std::shared_ptr<OpenFile> AddFile(const std::string& path, const std::string& record);
    // See the functions of these names in Model.h.
    std::shared_ptr<OpenFile> Adopt(const std::string& link);
    int MakeDescriptor(int flags, std::string& record);
    void DropDescriptor(const std::string& record);
    void JournalOpen(const std::string& path, int descriptor, int error);
    void JournalOpen(OpenFile& file, const std::string& record, int descriptor);
    void Close(Lock& lock, const std::shared_ptr<OpenFile>& file, int descriptor);
    // Null when there is no such channel; boards by index, channels by position on their board.
    Channel* FindChannel(int board, int channel);

    // --- faults and power ---------------------------------------------------------------------
    // Counts a request, or an "open", on every fault, and returns the effects that hit it. Null:
    // the event node. A hit is written to the folder of the cards at once, except kSlow: NoteMet()
    // writes it after the caller has let the time pass.
    std::vector<FaultEffect> MeetFaults(const std::string& request, const Channel* channel);
    // Whether a request, or an "open", that hangs must go on hanging.
    bool Hangs(const std::string& request, const Channel* channel) const;
    void NoteMet(FaultKind kind, const std::string& request, const Channel* channel) const;
    void AddFault(const Fault& fault);
    void ClearFaults();
    // False when that cannot be written.
    bool PowerCycle();
    // The board has no power from now on, for every process.
    void LosePower(Board& board);
    // A node vanishes until the next power cycle. Null: the event node.
    void LoseNode(Channel* channel);
    bool IsGone(const Channel* channel) const {
        return channel ? channel->state->gone : m_state.eventNodeGone;
    }
    bool IsShutDown() const { return m_shutDown; }
    // Ends every wait with ENODEV, now and in future.
    void ShutDown();

    // --- what requests work on ----------------------------------------------------------------
    EventTable& Events() { return m_events; }
    Notifications& Notifies() { return m_notifications; }
    Timers& DriverTimers() { return m_timers; }
    MediaSource& Media() { return m_media; }
    HandlePool& ImageHandles() { return m_imageHandles; }
    Journal& RequestJournal() { return m_journal; }
    // Records as the event node received them, by request.
    std::map<std::string, Bytes>& EventRecords() { return m_eventRecords; }
    Bytes LastRecord(int board, int channel, const std::string& request);
    void SetRecord(int board, int channel, const std::string& key, const Bytes& record);
    Alive CountAlive() const;

    // --- time ---------------------------------------------------------------------------------
    TimeSource& Time() { return m_time; }
    int64_t Now() const { return m_time.Now(); }
    // Executes everything that is due. Returns the clock units until something else is due, if
    // anything.
    std::optional<int64_t> RunDue();
    // In a child after fork(): threads and waiters are in the parent.
    void BeginInChild();

  private:
    std::string Build();
    std::string BuildBoard(BoardState& state);
    void TakeOnDriverWays();
    bool IsForeign(const std::string& path) const;
    static NodeKind KindOf(const std::string& path, const Channel* owner);
    void TakeOverState(const CardsState& fresh);
    // Changes the state of the folder for all its processes. False when it cannot be written: then
    // only this process uses the new state.
    template <class Change>
    bool ChangeState(Change change);
    void Complain(const std::string& what, int error);
    uint32_t& SettingsGeneration(const Channel& channel) const;
    bool OpenSettings(Channel& channel) const;
    std::string LoadSettings(Channel& channel) const;
    std::string SettingsPath(const Channel& channel) const;

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
    MediaSource m_media;
    FaultSet m_faults;
    Journal m_journal;
    std::map<std::string, Bytes> m_eventRecords;
    HandlePool m_imageHandles{0x4001};
    bool m_shutDown = false;
    bool m_complained = false;
};

}  // namespace qvsim
