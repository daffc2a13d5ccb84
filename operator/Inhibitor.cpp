// Asks logind over the system bus to delay a shutdown. The functions of the bus are looked up when
// the program runs; without them it is said that nothing is delayed.
#include "Inhibitor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "OptionalLibrary.h"

namespace qvo {
namespace {

constexpr char kLogind[] = "org.freedesktop.login1";

// The few functions of sd-bus that are needed.
class Bus {
  public:
    Bus() {
        m_library.Find("sd_bus_open_system", m_openSystem);
        m_library.Find("sd_bus_call_method", m_callMethod);
        m_library.Find("sd_bus_message_read", m_read);
        m_library.Find("sd_bus_message_unref", m_unref);
        m_library.Find("sd_bus_flush_close_unref", m_close);
    }
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus() {
        if (m_message != nullptr) m_unref(m_message);
        if (m_bus != nullptr) m_close(m_bus);
    }

    // A descriptor that holds the inhibitor lock, or -1 with the problem.
    int Inhibit(std::string* problem) {
        if (!m_library.IsComplete()) return Say(problem, "libsystemd is not here");
        if (const int result = m_openSystem(&m_bus); result < 0)
            return Say(problem, std::string("no system bus: ") + std::strerror(-result));
        const int called = m_callMethod(
            m_bus, kLogind, "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "Inhibit",
            nullptr, &m_message, "ssss", "shutdown:sleep:handle-power-key", "qvcap",
            "firmware is being written to capture cards", "block");
        if (called < 0)
            return Say(problem, std::string("logind cannot be asked: ") + std::strerror(-called));
        int fd = -1;
        if (m_read(m_message, "h", &fd) < 0) return Say(problem, "logind gave no answer");
        fd = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        return fd >= 0 ? fd : Say(problem, std::strerror(errno));
    }

  private:
    static int Say(std::string* problem, const std::string& text) {
        *problem = text;
        return -1;
    }

    qvf::OptionalLibrary m_library{"libsystemd.so.0"};
    void* m_bus = nullptr;
    void* m_message = nullptr;
    int (*m_openSystem)(void** bus) = nullptr;
    int (*m_callMethod)(void* bus, const char* destination, const char* path, const char* interface,
                        const char* member, void* error, void** reply, const char* types,
                        ...) = nullptr;
    int (*m_read)(void* message, const char* types, ...) = nullptr;
    void* (*m_unref)(void* message) = nullptr;
    void* (*m_close)(void* bus) = nullptr;
};

}  // namespace

Inhibitor::Inhibitor() { m_fd = Bus().Inhibit(&m_problem); }

Inhibitor::~Inhibitor() {
    if (m_fd >= 0) close(m_fd);
}

}  // namespace qvo
