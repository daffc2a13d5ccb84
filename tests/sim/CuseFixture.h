// The served door with the test in the kernel's place, at the other end of each control device;
// this very process is the client whose memory the requests point into.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "CuseServer.h"
#include "QVDriverRequests.h"
#include "gmock/gmock.h"
#include "support/SimRig.h"
#include "support/TempFolder.h"
#include "support/ThreadState.h"

namespace qvsim {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int kEvents = 1;  // the nodes of the fixture, in the order in which they are made
constexpr int kVideo = 0;
constexpr int kAnswerTime = 20000;  // ms; an answer that never comes fails the test

struct Reply {
    fuse_out_header header{};
    std::vector<uint8_t> body;
    int Error() const { return -header.error; }
    int Result() const {
        fuse_ioctl_out out{};
        if (body.size() != sizeof out) return -1;
        std::memcpy(&out, body.data(), sizeof out);
        return out.result;
    }
};

// No file of this process grows beyond so many bytes while one exists.
class SmallFiles {
  public:
    explicit SmallFiles(rlim_t bytes) : m_signal(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit small{bytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
    }
    ~SmallFiles() {
        setrlimit(RLIMIT_FSIZE, &m_before);
        static_cast<void>(std::signal(SIGXFSZ, m_signal));
    }
    SmallFiles(const SmallFiles&) = delete;
    SmallFiles& operator=(const SmallFiles&) = delete;

  private:
    rlimit m_before{};
    void (*m_signal)(int);
};

class CuseTest : public testing::Test {
  protected:
    void SetUp() override { m_stop = eventfd(0, EFD_CLOEXEC); }
    void TearDown() override {
        Stop();
        for (const int end : m_ends) close(end);
        close(m_stop);
    }

    // A kernel that asks for each node and makes it at once; `refusing` ones hang up instead.
    CuseWays Ways(bool refusing = false) {
        CuseWays ways;
        ways.deviceFolder = m_folder;
        ways.patience = std::chrono::milliseconds(kAnswerTime);
        ways.openControl = [this, refusing] {
            int pair[2];
            if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0)
                return -1;
            if (refusing) {
                close(pair[1]);
                return pair[0];
            }
            std::ofstream(m_folder + "/" + m_model->NodeNames()[m_ends.size()]).put('\n');
            m_ends.push_back(pair[1]);
            Send(static_cast<int>(m_ends.size()) - 1, CUSE_INIT, m_offer);
            return pair[0];
        };
        ways.complain = [this](const std::string& line) { m_complaints.push_back(line); };
        return ways;
    }
    void Load() { ASSERT_EQ("", Model::Load(m_rig.Dir(), m_model)); }
    // Cards with /dev/video0 and /dev/qv-event, served by a thread, the greeting done.
    void Serve() {
        m_rig.Add(Pelix().Video(64, 32, 0));
        Load();
        m_server = std::make_unique<CuseServer>(m_model, Ways());
        ASSERT_EQ("", m_server->Start(m_stop));
        ASSERT_FALSE(m_server->Stopped());
        for (int node = 0; node < 2; ++node) {
            m_greeting = Receive(node);
            ASSERT_EQ(0, m_greeting.Error());
        }
        m_thread = std::thread([this] {
            m_serverThread = gettid();
            m_outcome = m_server->Run();
        });
    }
    void TellToStop() {
        const uint64_t one = 1;
        EXPECT_EQ(static_cast<ssize_t>(sizeof one), write(m_stop, &one, sizeof one));
    }
    void Stop() {
        if (!m_thread.joinable()) return;
        TellToStop();
        m_thread.join();
    }
    static cuse_init_in Offer() {
        cuse_init_in offer{};
        offer.major = FUSE_KERNEL_VERSION;
        offer.minor = FUSE_KERNEL_MINOR_VERSION;
        offer.flags = CUSE_UNRESTRICTED_IOCTL;
        return offer;
    }

    template <class Body>
    uint64_t Send(int node, uint32_t opcode, const Body& body) {
        struct {
            fuse_in_header header{};
            Body body{};
        } message;
        message.header.len = sizeof message;
        message.header.opcode = opcode;
        message.header.unique = ++m_unique;
        message.header.pid = static_cast<uint32_t>(getpid());
        message.body = body;
        EXPECT_EQ(static_cast<ssize_t>(sizeof message),
                  send(m_ends[static_cast<size_t>(node)], &message, sizeof message, 0));
        return m_unique;
    }
    Reply Receive(int node) {
        Reply reply;
        pollfd ready{m_ends[static_cast<size_t>(node)], POLLIN, 0};
        EXPECT_EQ(1, poll(&ready, 1, kAnswerTime)) << "no answer";
        std::vector<uint8_t> bytes(4096);
        const ssize_t n = recv(ready.fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (n < static_cast<ssize_t>(sizeof reply.header)) {
            ADD_FAILURE() << "an answer of " << n << " bytes";
            return reply;
        }
        std::memcpy(&reply.header, bytes.data(), sizeof reply.header);
        EXPECT_EQ(n, static_cast<ssize_t>(reply.header.len));
        reply.body.assign(bytes.begin() + sizeof reply.header, bytes.begin() + n);
        return reply;
    }
    template <class Body>
    Reply Ask(int node, uint32_t opcode, const Body& body) {
        const uint64_t unique = Send(node, opcode, body);
        Reply reply = Receive(node);
        EXPECT_EQ(unique, reply.header.unique);
        return reply;
    }
    // With the model locked: returns when the server has taken what was sent and waits at the
    // lock.
    void AwaitHeldUp(int node) {
        int bytes = 1;
        while (bytes > 0) ASSERT_EQ(0, ioctl(m_ends[static_cast<size_t>(node)], TIOCOUTQ, &bytes));
        // From a message to its request the server sleeps nowhere else.
        while (ThreadState(m_serverThread) != 'S') std::this_thread::yield();
    }
    uint64_t Open(int node) {
        const Reply reply = Ask(node, FUSE_OPEN, fuse_open_in{});
        fuse_open_out out{};
        EXPECT_EQ(sizeof out, reply.body.size());
        std::memcpy(&out, reply.body.data(), std::min(sizeof out, reply.body.size()));
        return out.fh;
    }
    static fuse_ioctl_in Ioctl(uint64_t fh, uint32_t code, const void* argument) {
        fuse_ioctl_in in{};
        in.fh = fh;
        in.flags = FUSE_IOCTL_UNRESTRICTED | (sizeof(void*) == 4 ? FUSE_IOCTL_32BIT : 0);
        in.cmd = code;
        in.arg = reinterpret_cast<uintptr_t>(argument);
        return in;
    }
    template <class Row>
    Reply Do(int node, uint64_t fh, const Row& row, const void* argument) {
        return Ask(node, FUSE_IOCTL, Ioctl(fh, row.code, argument));
    }
    uint64_t CreateEvent(uint64_t events) {
        uint64_t event = 0;
        EXPECT_EQ(0, Do(kEvents, events, qv::kCreateEvent, &event).Error());
        return event;
    }
    uint64_t SendWait(uint64_t events, const qv::WaitEventRecord& wait) {
        return Send(kEvents, FUSE_IOCTL, Ioctl(events, qv::kWaitEvent.code, &wait));
    }

    SimRig m_rig;
    const qvtest::TempFolder m_temporary{"qvsim-cuse"};
    const std::string m_folder = m_temporary.Path();
    std::shared_ptr<Model> m_model;
    std::unique_ptr<CuseServer> m_server;
    std::thread m_thread;
    std::atomic<pid_t> m_serverThread = 0;
    std::string m_outcome = "still serving";
    std::vector<int> m_ends;
    cuse_init_in m_offer = Offer();
    std::vector<std::string> m_complaints;
    Reply m_greeting;
    uint64_t m_unique = 100;
    int m_stop = -1;
};

}  // namespace qvsim
