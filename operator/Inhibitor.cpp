#include "Inhibitor.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qvo {
namespace {

constexpr char kLogind[] = "org.freedesktop.login1";

// The few functions of sd-bus that are needed, by the names and types of its stable interface: they
// are looked up when the program runs, so that it starts, and is built, without the library.
class Bus {
  public:
    Bus() : library_(dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL)) {
        Find("sd_bus_open_system", openSystem_);
        Find("sd_bus_call_method", callMethod_);
        Find("sd_bus_message_read", read_);
        Find("sd_bus_message_unref", unref_);
        Find("sd_bus_flush_close_unref", close_);
    }
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus() {
        if (message_ != nullptr) unref_(message_);
        if (bus_ != nullptr) close_(bus_);
        if (library_ != nullptr) dlclose(library_);
    }

    // A descriptor that holds the inhibitor, or -1 with the problem.
    int Inhibit(std::string* problem) {
        if (library_ == nullptr || missing_) return Say(problem, "libsystemd is not here");
        if (const int result = openSystem_(&bus_); result < 0)
            return Say(problem, std::string("no system bus: ") + std::strerror(-result));
        const int called =
            callMethod_(bus_, kLogind, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                        "Inhibit", nullptr, &message_, "ssss", "shutdown:sleep:handle-power-key", "qvcap",
                        "firmware is being written to capture cards", "block");
        if (called < 0)
            return Say(problem, std::string("logind cannot be asked: ") + std::strerror(-called));
        int fd = -1;
        if (read_(message_, "h", &fd) < 0) return Say(problem, "logind gave no answer");
        fd = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        return fd >= 0 ? fd : Say(problem, std::strerror(errno));
    }

  private:
    template <class Function>
    void Find(const char* name, Function*& function) {
        void* const found = library_ == nullptr ? nullptr : dlsym(library_, name);
        missing_ = missing_ || found == nullptr;
        function = reinterpret_cast<Function*>(found);
    }
    static int Say(std::string* problem, const std::string& text) {
        *problem = text;
        return -1;
    }

    void* library_;
    bool missing_ = false;
    void* bus_ = nullptr;
    void* message_ = nullptr;
    int (*openSystem_)(void** bus) = nullptr;
    int (*callMethod_)(void* bus, const char* destination, const char* path, const char* interface,
                       const char* member, void* error, void** reply, const char* types,
                       ...) = nullptr;
    int (*read_)(void* message, const char* types, ...) = nullptr;
    void* (*unref_)(void* message) = nullptr;
    void* (*close_)(void* bus) = nullptr;
};

}  // namespace

Inhibitor::Inhibitor() { fd_ = Bus().Inhibit(&problem_); }

Inhibitor::~Inhibitor() {
    if (fd_ >= 0) close(fd_);
}

}  // namespace qvo
