// One character device, served through one open control device of the kernel. Handles only the
// messages.
//
// Knows neither cards nor requests; CuseServer does. The descriptor is non-blocking and carries one
// whole message per read and write. One thread.
#pragma once

#include <linux/fuse.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qvsim {

struct CuseMessage {
    fuse_in_header header{};
    std::vector<uint8_t> body;

    // Copies the start of the body; false when it is too short.
    bool Get(void* record, size_t size) const;
};

class CuseNode {
  public:
    enum class Received { kMessage, kNothing, kGone };

    // `name` as in the folder of devices; takes ownership of the descriptor.
    CuseNode(std::string name, int fd) : m_name(std::move(name)), m_fd(fd) {}
    ~CuseNode();
    CuseNode(const CuseNode&) = delete;
    CuseNode& operator=(const CuseNode&) = delete;

    int Fd() const { return m_fd; }
    const std::string& Name() const { return m_name; }
    std::string Path() const { return "/dev/" + m_name; }

    Received Receive(CuseMessage& message);
    // Answers the kernel's first message; false when the kernel has another version.
    bool AnswerInit(const CuseMessage& message);
    // Whether the kernel's first message was answered.
    bool Greeted() const { return m_greeted; }
    // `error` is an errno, 0: none. An errno that no kernel passes on arrives as EIO. A request
    // that has ended meanwhile needs no answer.
    void Answer(uint64_t unique, int error, const void* data = nullptr, size_t size = 0) const;
    template <class Record>
    void AnswerWith(uint64_t unique, const Record& record) const {
        Answer(unique, 0, &record, sizeof record);
    }

  private:
    std::string m_name;
    int m_fd;
    bool m_greeted = false;
    std::vector<uint8_t> m_buffer;
};

}  // namespace qvsim
