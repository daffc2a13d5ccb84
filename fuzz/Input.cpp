#include "Input.h"

#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>

namespace qvfuzz {

const std::string& AsFile(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("input", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    Check(fd >= 0 && ftruncate(fd, 0) == 0, "no file in memory");
    for (size_t done = 0; done < size;) {
        const ssize_t n = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
        Check(n > 0, "the file in memory cannot be written");
        done += static_cast<size_t>(n);
    }
    return path;
}

namespace {

struct Temporary {
    Temporary() {
        const char* const memory = "/dev/shm";
        path = std::string(access(memory, W_OK) == 0 ? memory : "/tmp") + "/qvfuzz-XXXXXX";
        Check(mkdtemp(path.data()) != nullptr, "no temporary folder");
    }
    ~Temporary() {
        std::error_code ignored;  // a leftover in the temporary directory breaks nothing
        std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

}  // namespace

const std::string& Folder() {
    static const Temporary kFolder;
    return kFolder.path;
}

}  // namespace qvfuzz
