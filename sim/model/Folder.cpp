#include "Folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Files.h"

namespace qvsim {
namespace {

constexpr char kPageMagic[] = "qvsim-live 1\n";

std::string PagePath(const std::string& dir) { return dir + "/cards.live"; }

}  // namespace

std::string Folder::Make(const std::string& dir) {
    LivePage page{};
    std::memcpy(page.magic, kPageMagic, sizeof kPageMagic);
    const std::string bytes(reinterpret_cast<const char*>(&page), sizeof page);
    if (ReplaceFile(PagePath(dir), bytes)) return {};
    return PagePath(dir) + ": cannot be written: " + std::strerror(errno);
}

std::unique_ptr<Folder> Folder::Open(const std::string& dir, std::string& error) {
    std::unique_ptr<Folder> folder(new Folder);
    const std::string path = PagePath(dir);
    folder->dir_ = dir;
    folder->owner_ = getpid();
    folder->fd_ = OpenOutOfTheWay(path, O_RDWR);
    struct stat status {};
    if (folder->fd_ < 0 || fstat(folder->fd_, &status) != 0) {
        error = path + ": " + std::strerror(errno) + "; make the folder with `qvcap-sim init`";
        return nullptr;
    }
    if (status.st_size != sizeof(LivePage)) {
        error = path + ": has " + std::to_string(status.st_size) + " bytes and not " +
                std::to_string(sizeof(LivePage)) + "; make the folder anew with `qvcap-sim init`";
        return nullptr;
    }
    void* const page =
        mmap(nullptr, sizeof(LivePage), PROT_READ | PROT_WRITE, MAP_SHARED, folder->fd_, 0);
    if (page == MAP_FAILED) {
        error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    folder->page_ = static_cast<LivePage*>(page);
    if (std::memcmp(folder->page_->magic, kPageMagic, sizeof kPageMagic) != 0) {
        error = path + ": is not of this version; make the folder anew with `qvcap-sim init`";
        return nullptr;
    }
    return folder;
}

Folder::~Folder() {
    if (page_) munmap(page_, sizeof *page_);
    if (fd_ >= 0) CloseOwn(fd_);
}

void Folder::Acquire() {
    if (depth_++ > 0) return;
    if (const int me = getpid(); me != owner_) {
        const int mine = OpenOutOfTheWay(PagePath(dir_), O_RDWR);
        if (mine >= 0) {
            CloseOwn(fd_);
            fd_ = mine;
            owner_ = me;
        }
    }
    while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
    }
}

void Folder::Release() {
    if (--depth_ == 0) flock(fd_, LOCK_UN);
}

}  // namespace qvsim
