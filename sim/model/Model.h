// The simulated cards of one state directory, alive: the cards, their lock, and the thread that
// keeps their time.
//
// Any thread. Every function takes the lock; who needs several things done at once, as a request
// does, makes a Model::Locked. At most two threads of its own, both started when first needed and
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

class Model {
  public:
    // The cards, and the right to touch them: the lock is held as long as this is there.
    class Locked {
      public:
        explicit Locked(Model& model) : m_model(model), m_lock(model.m_mutex) {}
        Locked(const Locked&) = delete;
        Locked& operator=(const Locked&) = delete;
        LiveCards* operator->() const { return &m_model.m_cards; }
        // For waits, which release it while they sleep.
        LiveCards::Lock& Lock() { return m_lock; }
        // Lets others work on the cards meanwhile.
        void Sleep(std::chrono::microseconds time);
        // Something with a time changed: lets happen what is due, and sees to it that the rest
        // will.
        void Kick();

      private:
        Model& m_model;
        LiveCards::Lock m_lock;
    };

    // Null, and what went wrong, when the directory holds no usable state.
    static std::shared_ptr<Model> Load(const std::string& dir, std::string& error);
    // Cards with blank flash that live in this process alone: no directory, no journal.
    static std::shared_ptr<Model> InMemory(CardsState state, std::string& error);
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
    // Null and an errno when the node cannot be opened. `descriptor` is for the journal alone.
    std::shared_ptr<OpenFile> Open(const std::string& path, int& error);
    void JournalOpen(const std::string& path, int descriptor, int error) {
        Locked(*this)->JournalOpen(path, descriptor, error);
    }
    // A descriptor for a file that is to be opened, with these flags of open(2), or -1 and errno;
    // see OpenRecord.h. It is dropped, closed already, or given to the file by JournalOpen().
    int MakeDescriptor(int flags, std::string& record) {
        return Locked(*this)->MakeDescriptor(flags, record);
    }
    void DropDescriptor(const std::string& record) { Locked(*this)->DropDescriptor(record); }
    void JournalOpen(OpenFile& file, const std::string& record, int descriptor) {
        Locked(*this)->JournalOpen(file, record, descriptor);
    }
    // What a descriptor stands for that this process was started with: its link in /proc. Null when
    // it is no node.
    std::shared_ptr<OpenFile> Adopt(const std::string& link) { return Locked(*this)->Adopt(link); }
    // Around fork(), by the thread that calls it: the lock is held over it, so that the child finds
    // the cards whole. The child's threads and frame memory are the parent's.
    void HoldForFork() { m_mutex.lock(); }
    void BeginInChild();
    void LetGoAfterFork() { m_mutex.unlock(); }
    // Empty: in memory alone.
    std::string Dir() const { return m_cards.Dir(); }
    // The last descriptor of the file in this process is closed.
    void Close(const std::shared_ptr<OpenFile>& file, int descriptor);

    // --- for tests and the command line ----------------------------------------------------
    // Channels are named by board index and by their position on the board; where there is none of
    // that name, nothing happens.
    void PowerCycle() { Locked(*this)->PowerCycle(); }
    void AddFault(const Fault& fault) { Locked(*this)->AddFault(fault); }
    void ClearFaults() { Locked(*this)->ClearFaults(); }
    void RaiseNotification(int board, int channel, uint64_t bits);
    void SetSignal(int board, int channel, bool present);
    // Signals the capture event while the frame in work is not complete.
    void InterruptFrame(int board, int channel);
    // The record of the last such request as it came from the caller; empty when there was none.
    // Requests of the event node are found under board -1.
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
    // Stops the device clocks, so that timers fire by AdvanceClock() alone. 100 ns units.
    void FreezeClock() { Locked(*this)->Time().Freeze(); }
    void AdvanceClock(int64_t units);
    // How the cards are laid out; the caller sees to it that nobody changes them.
    const CardsState& State() const { return m_cards.State(); }
    // Ends every wait with ENODEV and stops what runs on its own; the model stays readable.
    void ShutDown();

  private:
    Model() : m_cards(m_mutex) {}
    void KeepTime();

    std::mutex m_mutex;
    LiveCards m_cards;  // reached through Locked, but for what never changes
    std::condition_variable m_timeChanged;
    std::thread m_timekeeper;  // started when something is due for the first time
};

}  // namespace qvsim
