// What qvftool writes is on the disk before it has its name, and its name before the program ends;
// an interrupted write goes on. This program has the system calls that tell: fsync() and write()
// are its own.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "QvftoolFixture.h"

namespace {

std::vector<std::string> g_synced;  // "file" or "folder", in order
int g_interruptions = 0;            // still to come
int g_refusedSyncs = 0;             // still to come

}  // namespace

extern "C" int fsync(int fd) {
    struct stat status = {};
    fstat(fd, &status);
    g_synced.push_back(S_ISDIR(status.st_mode) ? "folder" : "file");
    if (g_refusedSyncs > 0) {
        --g_refusedSyncs;
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" ssize_t write(int fd, const void* data, size_t size) {
    struct stat status = {};
    if (g_interruptions > 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        --g_interruptions;
        errno = EINTR;
        return -1;
    }
    return syscall(SYS_write, fd, data, size);
}

namespace qvtest {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

class DurabilityTest : public QvftoolFixture {
  protected:
    DurabilityTest() {
        Package().Section("A", 0x1000, 70000).Write("p.qvf");
        EXPECT_EQ(0, Run({"extract", "p.qvf", "-d", "apart"}).status);
        g_synced.clear();
    }
    static QvftoolRun Create(const std::string& place) {
        return Run({"create", "apart/description.toml", "-o", place});
    }
};

TEST_F(DurabilityTest, APackageIsSyncedThenItsFolder) {
    EXPECT_EQ(0, Create("new.qvf").status);
    EXPECT_THAT(g_synced, ElementsAre("file", "folder"));
}

TEST_F(DurabilityTest, InterruptedWritesGoOn) {
    g_interruptions = 5;
    EXPECT_EQ(0, Create("new.qvf").status);
    EXPECT_EQ(0, g_interruptions);
    EXPECT_TRUE(Content("p.qvf") == Content("new.qvf"));
}

TEST_F(DurabilityTest, APackageThatCannotBeSyncedLeavesTheOldOne) {
    ASSERT_EQ(0, Create("new.qvf").status);
    const Bytes before = Content("new.qvf");
    g_refusedSyncs = 1;
    EXPECT_EQ(2, Create("new.qvf").status);
    EXPECT_TRUE(before == Content("new.qvf"));
    EXPECT_THAT(Here(), UnorderedElementsAre("p.qvf", "apart", "new.qvf"));
}

}  // namespace
}  // namespace qvtest
