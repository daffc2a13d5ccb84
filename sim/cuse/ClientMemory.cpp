// Reads and writes another process's memory. Knows no request.
#include "ClientMemory.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>

namespace qvsim {
namespace {

// True when the range fits this process's own word size, which is the client's or larger.
bool Nameable(uint64_t address, uint32_t size) {
    return address != 0 && address <= UINTPTR_MAX && size <= UINTPTR_MAX - address;
}

iovec Range(uint64_t address, size_t size) {
    return {reinterpret_cast<void*>(static_cast<uintptr_t>(address)), size};
}

// Pins the address space itself, so that a reused process number cannot lead to another process.
class KeptMemory : public CallerMemory {
  public:
    // Null when there is no such descriptor.
    static std::shared_ptr<CallerMemory> Of(int fd) {
        if (fd < 0) return nullptr;
        return std::make_shared<KeptMemory>(fd);
    }
    explicit KeptMemory(int fd) : m_fd(fd) {}
    ~KeptMemory() override { close(m_fd); }
    KeptMemory(const KeptMemory&) = delete;
    KeptMemory& operator=(const KeptMemory&) = delete;

    bool Read(uint64_t address, void* data, uint32_t size) override {
        return Move(address, size, [&](uint32_t done, off_t at) {
            return pread(m_fd, static_cast<char*>(data) + done, size - done, at);
        });
    }
    bool Write(uint64_t address, const void* data, uint32_t size) override {
        return Move(address, size, [&](uint32_t done, off_t at) {
            return pwrite(m_fd, static_cast<const char*>(data) + done, size - done, at);
        });
    }
    std::shared_ptr<CallerMemory> Keep() const override {
        return Of(fcntl(m_fd, F_DUPFD_CLOEXEC, 0));
    }

  private:
    template <class Step>
    bool Move(uint64_t address, uint32_t size, Step step) {
        if (!Nameable(address, size)) return false;
        for (uint32_t done = 0; done < size;) {
            const ssize_t n = step(done, static_cast<off_t>(address + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += static_cast<uint32_t>(n);
        }
        return true;
    }
    int m_fd;
};

}  // namespace

bool IsEnding(pid_t thread) {
    std::ifstream status("/proc/" + std::to_string(thread) + "/status");
    constexpr char kPending[] = "SigPnd:";
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, sizeof kPending - 1, kPending) == 0)
            return (std::strtoull(line.c_str() + sizeof kPending - 1, nullptr, 16) >>
                        (SIGKILL - 1) &
                    1) != 0;
    return true;
}

bool ClientMemory::Read(uint64_t address, void* data, uint32_t size) {
    if (size == 0) return true;
    if (!Nameable(address, size)) return false;
    const iovec local{data, size};
    const iovec remote = Range(address, size);
    return process_vm_readv(m_thread, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

bool ClientMemory::Write(uint64_t address, const void* data, uint32_t size) {
    if (size == 0) return true;
    if (!Nameable(address, size)) return false;
    const iovec local{const_cast<void*>(data), size};
    const iovec remote = Range(address, size);
    return process_vm_writev(m_thread, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

std::shared_ptr<CallerMemory> ClientMemory::Keep() const {
    const std::string path = "/proc/" + std::to_string(m_thread) + "/mem";
    return KeptMemory::Of(open(path.c_str(), O_RDWR | O_CLOEXEC));
}

}  // namespace qvsim
