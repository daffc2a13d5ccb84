// The lock and the shared page of a folder of cards. The files of the folder have readers of their
// own.
#include "Folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "PlainFiles.h"

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

std::string Folder::Open(const std::string& dir, std::unique_ptr<Folder>& out) {
    std::unique_ptr<Folder> folder(new Folder);
    const std::string path = PagePath(dir);
    folder->m_dir = dir;
    folder->m_owner = getpid();
    folder->m_fd = OpenOutOfTheWay(path, O_RDWR);
    struct stat status {};
    if (folder->m_fd < 0 || fstat(folder->m_fd, &status) != 0)
        return path + ": " + std::strerror(errno) + "; make the folder with `qvcap-sim init`";
    if (status.st_size != sizeof(LivePage))
        return path + ": has " + std::to_string(status.st_size) + " bytes and not " +
               std::to_string(sizeof(LivePage)) + "; create the folder again with `qvcap-sim init`";
    void* const page =
        mmap(nullptr, sizeof(LivePage), PROT_READ | PROT_WRITE, MAP_SHARED, folder->m_fd, 0);
    if (page == MAP_FAILED) return path + ": " + std::strerror(errno);
    folder->m_page = static_cast<LivePage*>(page);
    if (std::memcmp(folder->m_page->magic, kPageMagic, sizeof kPageMagic) != 0)
        return path + ": is not of this version; create the folder again with `qvcap-sim init`";
    out = std::move(folder);
    return {};
}

Folder::~Folder() {
    if (m_page) munmap(m_page, sizeof *m_page);
    if (m_fd >= 0) CloseOwn(m_fd);
}

void Folder::Acquire() {
    if (m_depth++ > 0) return;
    if (const int me = getpid(); me != m_owner) {
        const int mine = OpenOutOfTheWay(PagePath(m_dir), O_RDWR);
        if (mine >= 0) {
            CloseOwn(m_fd);
            m_fd = mine;
            m_owner = me;
        }
    }
    while (flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
    }
}

void Folder::Release() {
    if (--m_depth == 0) flock(m_fd, LOCK_UN);
}

}  // namespace qvsim
