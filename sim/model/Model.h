// The running simulated cards of one state directory: the cards, their lock, and the thread that
// keeps their time.
//
// Any thread. Every function takes the lock; a caller that needs several steps under one lock, such
// as a request, makes a Model::Locked. Has at most two threads, both started when first needed and
// ended by ShutDown(): one keeps time, one writes pictures.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LiveCards.h"

namespace qvsim {

// An open of a caller whose door does something else while it must wait: for a late node, or for
// one that hangs.
struct ParkedOpen {
    std::chrono::microseconds delay{0};  // 0: it need not wait, and has an answer
    bool counted = false;                // by the faults, with these effects
    bool slept = false;                  // through the delay of a late node
    std::vector<FaultEffect> effects;
    bool Hangs() const { return EffectOf(effects, FaultKind::kHang) && !slept; }
};

class Model {
  public:
    // Access to the cards: holds the lock as long as it exists.
    class Locked {
      public:
        explicit Locked(Model& model) : m_model(model), m_lock(model.m_mutex) {}
        Locked(const Locked&) = delete;
        Locked& operator=(const Locked&) = delete;
        LiveCards* operator->() const { return &m_model.m_cards; }
        // For waits, which release it while they sleep.
        LiveCards::Lock& Lock() { return m_lock; }
        // Releases the lock, so that others can work on the cards.
        void Sleep(std::chrono::microseconds time);
        // Call it after a change of a time: executes what is due, and schedules the rest.
        void Kick();

      private:
        Model& m_model;
        LiveCards::Lock m_lock;
    };

    // Both return an error message, empty on success. The cards of a directory.
    static std::string Load(const std::string& dir, std::shared_ptr<Model>& out);
    // Cards with blank flash that live in this process alone: no directory, no journal.
    static std::string InMemory(CardsState state, std::shared_ptr<Model>& out);
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;
    ~Model() { ShutDown(); }

    // --- for doors -------------------------------------------------------------------------
    // True for /dev/qv-event and every /dev/video<number>: the model answers for all of them.
    static bool Answers(const char* path);
    // The same for a name in /dev.
    static bool AnswersName(const char* name);
    // True when such a path exists here.
    bool Exists(const std::string& path) { return Locked(*this)->Exists(path); }
    // Names in /dev that exist: "video0", "qv-event".
    std::vector<std::string> NodeNames() { return Locked(*this)->NodeNames(); }
    // Null and an errno when the node cannot be opened. With `parked`, an open that must wait is
    // stored there, null is returned, and the door calls again when the delay has passed.
    std::shared_ptr<OpenFile> Open(const std::string& path, int& error,
                                   ParkedOpen* parked = nullptr);
    void JournalOpen(const std::string& path, int descriptor, int error) {
        Locked(*this)->JournalOpen(path, descriptor, error);
    }
    // A descriptor for a node that is being opened, with these flags of open(2), or -1 and errno;
    // see OpenRecord.h. The caller closes and drops it, or passes it to the file with
    // JournalOpen().
    int MakeDescriptor(int flags, std::string& record) {
        return Locked(*this)->MakeDescriptor(flags, record);
    }
    void DropDescriptor(const std::string& record) { Locked(*this)->DropDescriptor(record); }
    void JournalOpen(OpenFile& file, const std::string& record, int descriptor) {
        Locked(*this)->JournalOpen(file, record, descriptor);
    }
    // The file of a descriptor that this process was started with; the argument is its link in
    // /proc. Null when it is no node.
    std::shared_ptr<OpenFile> Adopt(const std::string& link) { return Locked(*this)->Adopt(link); }
    // Around fork(), called by the forking thread: the lock is held meanwhile, so that the child
    // finds the cards in a consistent state. Threads and frame memory stay in the parent.
    void HoldForFork() { m_mutex.lock(); }
    void BeginInChild();
    void LetGoAfterFork() { m_mutex.unlock(); }
    // Empty: in memory alone.
    std::string Dir() const { return m_cards.Dir(); }
    // Called when the last descriptor of the file in this process is closed.
    void Close(const std::shared_ptr<OpenFile>& file, int descriptor);

    // --- for tests and the command line ----------------------------------------------------
    // Channels are named by board index and by their position on the board; without such a channel
    // nothing happens.
    // False, with a message, when the folder cannot be written.
    bool PowerCycle() { return Locked(*this)->PowerCycle(); }
    void AddFault(const Fault& fault) { Locked(*this)->AddFault(fault); }
    void ClearFaults() { Locked(*this)->ClearFaults(); }
    void RaiseNotification(int board, int channel, uint64_t bits);
    void SetSignal(int board, int channel, bool present);
    // Signals the capture event while the current frame is not complete.
    void InterruptFrame(int board, int channel);
    // The record of the last such request as the caller sent it; empty when there was none.
    // Requests of the event node have board -1.
    Bytes LastRecord(int board, int channel, const std::string& request) {
        return Locked(*this)->LastRecord(board, channel, request);
    }
    // Null when there is no such channel.
    NorFlash* Flash(int board, int channel);
    // Replaces what a get request answers.
    void SetRecord(int board, int channel, const std::string& key, const Bytes& record) {
        Locked(*this)->SetRecord(board, channel, key, record);
    }
    Alive CountAlive() { return Locked(*this)->CountAlive(); }
    // Stops the device clocks, so that only AdvanceClock() makes timers fire. 100 ns units.
    void FreezeClock() { Locked(*this)->Time().Freeze(); }
    void AdvanceClock(int64_t units);
    // The layout of the cards; the caller makes sure that nobody changes them.
    const CardsState& State() const { return m_cards.State(); }
    // Ends every wait with ENODEV and stops the threads; the model stays readable.
    void ShutDown();

  private:
    Model() : m_cards(m_mutex) {}
    void KeepTime();

    std::mutex m_mutex;
    LiveCards m_cards;  // accessed through Locked, except data that never changes
    std::condition_variable m_timeChanged;
    std::thread m_timekeeper;  // started when something is due for the first time
};

}  // namespace qvsim
