// Messages of one device, as the kernel sends and expects them. Answers none by itself.
#include "CuseNode.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qvsim {
namespace {

constexpr uint32_t kLargestTransfer = 65536;
// The kernel refuses a read buffer that is smaller than its largest message.
constexpr size_t kLargestMessage = 2 * kLargestTransfer + 4096;
// The kernel refuses an answer with a larger errno, and its caller would wait for ever.
constexpr int kLargestError = 511;

}  // namespace

bool CuseMessage::Get(void* record, size_t size) const {
    if (body.size() < size) return false;
    std::memcpy(record, body.data(), size);
    return true;
}

CuseNode::~CuseNode() {
    if (m_fd >= 0) close(m_fd);
}

CuseNode::Received CuseNode::Receive(CuseMessage& message) {
    m_buffer.resize(kLargestMessage);
    const ssize_t n = read(m_fd, m_buffer.data(), m_buffer.size());
    // ENOENT: the request was cancelled before it was read.
    if (n < 0 && (errno == EAGAIN || errno == EINTR || errno == ENOENT)) return Received::kNothing;
    if (n <= 0) return Received::kGone;
    const auto size = static_cast<size_t>(n);
    if (size < sizeof message.header) return Received::kNothing;
    std::memcpy(&message.header, m_buffer.data(), sizeof message.header);
    message.body.assign(m_buffer.begin() + sizeof message.header, m_buffer.begin() + n);
    return Received::kMessage;
}

bool CuseNode::AnswerInit(const CuseMessage& message) {
    cuse_init_in offered{};
    if (!message.Get(&offered, sizeof offered) || offered.major != FUSE_KERNEL_VERSION ||
        (offered.flags & CUSE_UNRESTRICTED_IOCTL) == 0) {
        Answer(message.header.unique, EPROTO);
        return false;
    }
    cuse_init_out wanted{};
    wanted.major = FUSE_KERNEL_VERSION;
    wanted.minor = FUSE_KERNEL_MINOR_VERSION;
    // Arguments stay in the caller's memory: a request's real size may differ from the size in its
    // number.
    wanted.flags = CUSE_UNRESTRICTED_IOCTL;
    wanted.max_read = kLargestTransfer;
    wanted.max_write = kLargestTransfer;
    const std::string info = "DEVNAME=" + m_name;
    std::vector<uint8_t> answer(sizeof wanted + info.size() + 1);
    std::memcpy(answer.data(), &wanted, sizeof wanted);
    std::memcpy(answer.data() + sizeof wanted, info.c_str(), info.size() + 1);
    Answer(message.header.unique, 0, answer.data(), answer.size());
    m_greeted = true;
    return true;
}

void CuseNode::Answer(uint64_t unique, int error, const void* data, size_t size) const {
    fuse_out_header header{};
    header.len = static_cast<uint32_t>(sizeof header + size);
    header.error = error >= 0 && error <= kLargestError ? -error : -EIO;
    header.unique = unique;
    const iovec parts[] = {{&header, sizeof header}, {const_cast<void*>(data), size}};
    // Nobody waits for an answer that cannot be delivered: the caller was killed, or the node is
    // gone; the next read reports that.
    while (writev(m_fd, parts, size ? 2 : 1) < 0 && errno == EINTR) {
    }
}

}  // namespace qvsim
