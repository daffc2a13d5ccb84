// What the channel worker and its duties share: events with serials, the wait set, the records
// behind callbacks. A duty is an EventSource; the worker's loop is in ChannelEntity.
//
// Worker thread only, unless said otherwise. Nothing here allocates: records are made by whoever
// asks for them, where a failure can still be told, and linked through members of their own.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "CallerParam.h"
#include "QVEventNode.h"

class CQVCaptureBase;

namespace qv {

// A pointer as a handle: widened to 64 bits with sign extension.
inline unsigned long long HandleOf(const void* pointer) {
    return static_cast<unsigned long long>(
        static_cast<long long>(reinterpret_cast<intptr_t>(pointer)));
}

// Handles of the library's own: they count from 1 for the whole process and never come back. Bit 63
// keeps them apart from the driver's handles; the zeros behind it from a kernel's addresses.
inline constexpr unsigned long long kKeyBit = 1ull << 63;
inline unsigned long long NextKey() {
    static std::atomic<uint64_t> last{0};
    return kKeyBit | (last.fetch_add(1, std::memory_order_relaxed) + 1);
}
inline bool MayBeKey(unsigned long long handle) { return handle >> 48 == kKeyBit >> 48; }

// Something that a callback is called for. Its owner hands it to WorkerScope::Retire() in the end.
struct CallbackRecord {
    explicit CallbackRecord(CallerParam given) : param(std::move(given)) {}
    CallbackRecord(const CallbackRecord&) = delete;
    CallbackRecord& operator=(const CallbackRecord&) = delete;
    virtual ~CallbackRecord() = default;

    CallerParam param;
    CallbackRecord* nextRetired = nullptr;
};

// What the duties of one worker share.
struct WorkerScope {
    explicit WorkerScope(CQVCaptureBase* owner) : channel(owner) {}

    // Deletes a record, once the callback that is running has returned.
    void Retire(CallbackRecord* record) {
        if (!m_inCallback) {
            delete record;
            return;
        }
        record->nextRetired = m_retired;
        m_retired = record;
    }
    // Runs one callback; `call` is the last user of what it gives to it.
    template <class Call>
    void CallBack(Call call) {
        m_inCallback = true;
        call();
        m_inCallback = false;
        while (CallbackRecord* const record = m_retired) {
            m_retired = record->nextRetired;
            delete record;
        }
    }

    CQVCaptureBase* const channel;
    EventNode events{kClosed};
    uint64_t lastSerial = 0;
    bool ending = false;  // a callback has closed the channel: no other is called

  private:
    bool m_inCallback = false;
    CallbackRecord* m_retired = nullptr;
};

// An event that a duty waits for. The driver may give the handle of a closed event to the next one;
// a serial never comes back, so that no signal is taken for a later event's.
class WorkerEvent {
  public:
    void Open(WorkerScope* scope) {
        m_handle = scope->events.Create();
        m_serial = ++scope->lastSerial;
    }
    void Close(const WorkerScope& scope) {
        scope.events.Close(m_handle);
        m_handle = 0;
        m_serial = 0;
    }
    unsigned long long Handle() const { return m_handle; }  // 0: not open
    uint64_t Serial() const { return m_serial; }            // 0: not open

  private:
    unsigned long long m_handle = 0;
    uint64_t m_serial = 0;
};

class EventSource;

// The events of one pass of the worker's loop, as they were when the pass began.
struct WaitSet {
    static constexpr int kSize = 32;
    static constexpr int kForEver = -1;
    static constexpr int kSoonMs = 100;

    struct Entry {
        EventSource* source;
        uint64_t serial;
    };
    Entry entries[kSize];
    unsigned long long events[kSize];
    int count = 0;
    int timeout = kForEver;  // milliseconds

    // Leaves out an event that is not open.
    void Add(EventSource* source, unsigned long long event, uint64_t serial) {
        if (event == 0 || count == kSize) return;
        entries[count] = {source, serial};
        events[count] = event;
        ++count;
    }
    // Has the worker come round again soon, even when nothing is signalled.
    void ComeBackSoon() { timeout = kSoonMs; }
};

// One duty of the worker.
class EventSource {
  public:
    EventSource(const EventSource&) = delete;
    EventSource& operator=(const EventSource&) = delete;

    // Adds the events that it waits for.
    virtual void AddEvents(WaitSet* set) = 0;
    // The event with this serial was set. A callback of the same pass may have closed it since, and
    // opened another: then nothing is to be done.
    virtual void OnSignal(uint64_t serial) = 0;

  protected:
    EventSource() = default;
    ~EventSource() = default;
};

}  // namespace qv
