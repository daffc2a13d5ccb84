// Driver requests as tests write them: plain calls on a descriptor. Nothing here checks anything.
#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "QVDriverRequests.h"

namespace qvsim {

// A node that closes itself.
class Node {
  public:
    explicit Node(const char* path) : m_fd(open(path, O_RDWR | O_NONBLOCK)) {}
    ~Node() { Close(); }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    int Fd() const { return m_fd; }
    void Close() {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

    template <class Row, class Record>
    int Do(const Row& row, Record&& record) const {
        return ioctl(m_fd, row.code, &record);
    }
    int Do(const qv::Action& row) const { return ioctl(m_fd, row.code); }

    int Erase(uint32_t offset, uint32_t size) const {
        return Do(qv::kEraseFirmwareData, qv::FirmwareEraseRecord{offset, size});
    }
    int Write(uint32_t offset, const std::vector<uint8_t>& data) const {
        return Do(qv::kWriteFirmwareData,
                  qv::FirmwareDataRecord{offset, static_cast<uint32_t>(data.size()),
                                         qv::WireAddress(data.data())});
    }
    // What was delivered; empty when refused.
    std::vector<uint8_t> Read(uint32_t offset, uint32_t size) const {
        std::vector<uint8_t> data(size);
        qv::FirmwareDataRecord record{offset, size, qv::WireAddress(data.data())};
        if (Do(qv::kReadFirmwareData, record) != 0) return {};
        data.resize(record.size);
        return data;
    }
    uint32_t RunningVersion() const {
        _QVCAP_CHANNEL_INFO info{};
        return Do(qv::kGetChannelInfo, info) == 0 ? info.firmwareVersion : 0;
    }
    uint64_t CreateEvent() const {
        uint64_t event = 0;
        Do(qv::kCreateEvent, event);
        return event;
    }
    int Wait(uint64_t event, int timeout) const {
        return Do(qv::kWaitEvent, qv::WaitEventRecord{event, timeout});
    }
    int WaitSeveral(const std::vector<uint64_t>& events, int timeout) const {
        return Do(qv::kMultiWaitEvent,
                  qv::MultiWaitEventRecord{qv::WireAddress(events.data()),
                                           static_cast<int32_t>(events.size()), timeout});
    }

  private:
    int m_fd;
};

}  // namespace qvsim
