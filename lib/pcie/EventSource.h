// What the channel worker and its duties share: events with serials, the wait set, the records
// behind callbacks. A duty is an EventSource; the worker's loop is in ChannelEntity.
//
// Worker thread only, unless said otherwise. Nothing here allocates: the code that needs a record
// makes it, where a failure can still be reported, and records are linked through their own
// members.
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

// The library's own handles: they count from 1 for the whole process and are never used again. Bit
// 63 distinguishes them from the driver's handles, the zeros below it from a kernel's addresses.
inline constexpr unsigned long long kKeyBit = 1ull << 63;
inline unsigned long long NextKey() {
    static std::atomic<uint64_t> last{0};
    return kKeyBit | (last.fetch_add(1, std::memory_order_relaxed) + 1);
}
inline bool MayBeKey(unsigned long long handle) { return handle >> 48 == kKeyBit >> 48; }

// A record with a callback. Its owner passes it to WorkerScope::Retire() in the end.
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

    // Deletes a record, but not before a running callback has returned.
    void Retire(CallbackRecord* record) {
        if (!m_inCallback) {
            delete record;
            return;
        }
        record->nextRetired = m_retired;
        m_retired = record;
    }
    // Runs one callback; nothing uses its arguments after `call`.
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
    bool ending = false;  // a callback has closed the channel: no further one is called

  private:
    bool m_inCallback = false;
    CallbackRecord* m_retired = nullptr;
};

// An event that a duty waits for. The driver may reuse the handle of a closed event; a serial is
// never used again, so that no signal is taken for that of a later event.
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
    // Makes the worker start the next pass soon, even when nothing is signalled.
    void ComeBackSoon() { timeout = kSoonMs; }
};

// One duty of the worker.
class EventSource {
  public:
    EventSource(const EventSource&) = delete;
    EventSource& operator=(const EventSource&) = delete;

    // Adds the events that this duty waits for.
    virtual void AddEvents(WaitSet* set) = 0;
    // Called when the event with this serial was set. A callback of the same pass may have closed
    // it since and opened another: then there is nothing to do.
    virtual void OnSignal(uint64_t serial) = 0;

  protected:
    EventSource() = default;
    ~EventSource() = default;
};

}  // namespace qv
