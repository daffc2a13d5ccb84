#include "Input.h"

#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>

namespace qvfuzz {

void Overwrite(int file, const uint8_t* data, size_t size) {
    Check(file >= 0, "no file to write");
    for (size_t done = 0; done < size;) {
        const ssize_t n = pwrite(file, data + done, size - done, static_cast<off_t>(done));
        Check(n > 0, "the file cannot be written");
        done += static_cast<size_t>(n);
    }
    Check(ftruncate(file, static_cast<off_t>(size)) == 0, "the file keeps its length");
}

const std::string& AsFile(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("input", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    Overwrite(fd, data, size);
    return path;
}

namespace {

struct Temporary {
    Temporary() {
        const char* const wanted = std::getenv("TEST_TMPDIR");
        path = wanted != nullptr ? wanted : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        path += "/qvfuzz-XXXXXX";
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
