#include "StandInLogind.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "OptionalLibrary.h"

namespace qvtest {
namespace {

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kManager[] = "org.freedesktop.login1.Manager";
constexpr uint64_t kLookEvery = 50000;  // microseconds

struct Identity {
    uint64_t halves[2];
};
struct BusError {
    const char* name;
    const char* message;
    int mustBeFreed;
};

// The functions of sd-bus that a server needs.
struct SdBus {
    SdBus() {
        library.Find("sd_bus_new", create);
        library.Find("sd_bus_set_fd", setFd);
        library.Find("sd_bus_set_server", setServer);
        library.Find("sd_bus_negotiate_fds", negotiateFds);
        library.Find("sd_bus_start", start);
        library.Find("sd_bus_process", process);
        library.Find("sd_bus_wait", wait);
        library.Find("sd_bus_message_is_method_call", isCall);
        library.Find("sd_bus_message_read", read);
        library.Find("sd_bus_message_unref", unref);
        library.Find("sd_bus_reply_method_return", answer);
        library.Find("sd_bus_reply_method_errno", refuse);
        library.Find("sd_bus_flush_close_unref", close);
    }

    qvf::OptionalLibrary library{"libsystemd.so.0"};
    int (*create)(void** bus);
    int (*setFd)(void* bus, int input, int output);
    int (*setServer)(void* bus, int is, Identity identity);
    int (*negotiateFds)(void* bus, int do_);
    int (*start)(void* bus);
    int (*process)(void* bus, void** message);
    int (*wait)(void* bus, uint64_t microseconds);
    int (*isCall)(void* message, const char* interface, const char* member);
    int (*read)(void* message, const char* types, ...);
    void* (*unref)(void* message);
    int (*answer)(void* call, const char* types, ...);
    int (*refuse)(void* call, int error, const BusError* words);
    void* (*close)(void* bus);
};

const SdBus& TheBus() {
    static const SdBus bus;
    return bus;
}

}  // namespace

bool StandInLogind::IsPossible() { return TheBus().library.IsComplete(); }

StandInLogind::StandInLogind(const std::string& path, bool refuses) : m_refuses(refuses) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address));
    EXPECT_EQ(0, listen(m_socket, 4));
    m_thread = std::thread([this] { Serve(); });
}

StandInLogind::~StandInLogind() {
    m_end = true;
    shutdown(m_socket, SHUT_RDWR);  // accept() returns
    m_thread.join();
    close(m_socket);
    for (const int fd : m_holds) close(fd);
}

std::vector<std::string> StandInLogind::Asked() const {
    const std::lock_guard lock(m_lock);
    return m_asked;
}

size_t StandInLogind::Held() const {
    const std::lock_guard lock(m_lock);
    return static_cast<size_t>(std::count_if(m_holds.begin(), m_holds.end(), [](int fd) {
        pollfd other = {fd, 0, 0};
        return poll(&other, 1, 0) == 0;  // no end of the other side is told
    }));
}

void StandInLogind::Serve() {
    while (!m_end) {
        const int connection = accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0) Talk(connection);
    }
}

int StandInLogind::Inhibit(const std::string& words) {
    const std::lock_guard lock(m_lock);
    m_asked.push_back(words);
    int ends[2];
    if (m_refuses || pipe2(ends, O_CLOEXEC) != 0) return -1;
    m_holds.push_back(ends[0]);
    return ends[1];
}

void StandInLogind::Talk(int connection) {
    const SdBus& bus = TheBus();
    void* server = nullptr;
    if (bus.create(&server) < 0) return;
    bool good = bus.setFd(server, connection, connection) >= 0 &&
                bus.setServer(server, 1, Identity{{1, 2}}) >= 0 &&
                bus.negotiateFds(server, 1) >= 0 && bus.start(server) >= 0;
    while (good && !m_end) {
        void* call = nullptr;
        const int done = bus.process(server, &call);
        good = done >= 0;
        if (call != nullptr && bus.isCall(call, kBus, "Hello") > 0) {
            bus.answer(call, "s", ":1.1");
        } else if (call != nullptr && bus.isCall(call, kManager, "Inhibit") > 0) {
            const char* words[4] = {"", "", "", ""};
            bus.read(call, "ssss", &words[0], &words[1], &words[2], &words[3]);
            const int fd =
                Inhibit(std::string(words[0]) + "|" + words[1] + "|" + words[2] + "|" + words[3]);
            if (fd >= 0)
                bus.answer(call, "h", fd);
            else
                bus.refuse(call, EACCES, nullptr);
            if (fd >= 0) close(fd);  // the message has its own
        }
        if (call != nullptr) bus.unref(call);
        if (done == 0) bus.wait(server, kLookEvery);
    }
    bus.close(server);
}

}  // namespace qvtest
