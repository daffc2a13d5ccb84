// The event operations of the driver, through one open descriptor of /dev/qv-event.
//
// Returns ioctl's raw answers where callers need them; 0 when no node is open. EventNodeFile owns
// the node's file: the registry holds one reference, every running channel worker another, so that
// the worker's wake-ups still work after an instance was closed too early. Any thread.
#pragma once

#include <unistd.h>

#include "QVDriverCall.h"
#include "base/Ref.h"

namespace qv {

// Deliberate: a handle of value 3, not a result code. The driver refuses it wherever it is used.
inline constexpr unsigned long long kClosedNodeHandle = 3;

class EventNodeFile : public RefCounted<EventNodeFile> {
  public:
    explicit EventNodeFile(int fd) : m_fd(fd) {}
    ~EventNodeFile() { close(m_fd); }
    int Descriptor() const { return m_fd; }

  private:
    const int m_fd;
};

// One event node, by its descriptor; kClosed is a node that is not open.
class EventNode {
  public:
    explicit EventNode(int fd) : m_fd(fd) {}

    // The new handle, 0 when the driver refused, kClosedNodeHandle when the node is not open.
    unsigned long long Create() const {
        if (m_fd == kClosed) return kClosedNodeHandle;
        uint64_t event = 0;
        return Do(m_fd, kCreateEvent, &event) == QV_RESULT_OK ? event : 0;
    }
    QV_RESULT Close(unsigned long long event) const { return DoHandle(m_fd, kCloseEvent, event); }
    QV_RESULT Set(unsigned long long event) const { return DoHandle(m_fd, kSetEvent, event); }
    QV_RESULT Clear(unsigned long long event) const { return DoHandle(m_fd, kClearEvent, event); }
    bool IsSet(unsigned long long event) const {
        return event != 0 && Ask(kIsSetEvent, uint64_t{event}) != 0;
    }
    int TryWait(unsigned long long event) const {
        return event == 0 ? 0 : Ask(kTryWaitEvent, uint64_t{event});
    }
    int Wait(unsigned long long event, int timeout) const {
        return event == 0 ? 0 : Ask(kWaitEvent, WaitEventRecord{event, timeout});
    }
    // Bit i modulo 32 belongs to event i, deliberately: event 32 shares bit 0 with event 0.
    unsigned int MultiWait(const unsigned long long* events, int count, int timeout) const {
        if (events == nullptr) return 0;
        const MultiWaitEventRecord record{WireAddress(events), count, timeout};
        if (Ask(kMultiWaitEvent, record) < 1) return 0;
        unsigned int mask = 0;
        for (int i = 0; i < count; ++i)
            if (TryWait(events[i]) == 1) mask |= 1u << (i % 32);
        return mask;
    }

  private:
    template <class Record>
    int Ask(qv::Set<Record> request, Record record) const {
        return m_fd == kClosed ? 0 : Call(m_fd, request, &record);
    }

    int m_fd;
};

}  // namespace qv
