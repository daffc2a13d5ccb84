// Where create and extract write to: files, links, what is no file, standard output.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "QvftoolFixture.h"

namespace qvtest {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class OutputTest : public QvftoolFixture {
  protected:
    OutputTest() {
        Package().Section("A", 0x1000, 70000).Write("p.qvf");
        EXPECT_EQ(0, Run({"extract", "p.qvf", "-d", "apart"}).status);
    }
    static QvftoolRun Create(const std::string& place) {
        return Run({"create", "apart/description.toml", "-o", place});
    }
    static mode_t ModeOf(const std::string& path) {
        struct stat status = {};
        EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
        return status.st_mode & 07777;
    }
};

TEST_F(OutputTest, StandardOutputTakesThePackage) {
    const QvftoolRun run = Create("-");
    EXPECT_EQ(0, run.status);
    EXPECT_TRUE(Content("p.qvf") == Bytes(run.output.begin(), run.output.end()));
    EXPECT_THAT(Here(), UnorderedElementsAre("p.qvf", "apart"));
}

TEST_F(OutputTest, WhatIsNoRegularFileIsWrittenIntoAndStays) {
    ASSERT_EQ(0, mkfifo("pipe", 0600));
    std::filesystem::create_symlink("pipe", "link");
    for (const char* place : {"pipe", "link"}) {
        // Opened for both, so that nobody waits for anybody.
        const int reader = open("pipe", O_RDWR | O_CLOEXEC);
        ASSERT_GE(reader, 0);
        Bytes received(Content("p.qvf").size());
        std::thread reading([&] {
            for (size_t done = 0; done < received.size();) {
                const ssize_t n = read(reader, received.data() + done, received.size() - done);
                if (n <= 0) return;
                done += static_cast<size_t>(n);
            }
        });
        const QvftoolRun run = Create(place);
        EXPECT_EQ(0, run.status) << run.errors;
        struct stat status = {};
        EXPECT_EQ(0, stat("pipe", &status));
        const bool isFifo = S_ISFIFO(status.st_mode);
        EXPECT_TRUE(isFifo) << place;
        // A FIFO that is none any more never gives the reader its bytes.
        if (!isFifo) {
            const Bytes rest(received.size());
            EXPECT_EQ(static_cast<ssize_t>(rest.size()), write(reader, rest.data(), rest.size()));
        }
        reading.join();
        close(reader);
        if (!isFifo) return;
        EXPECT_TRUE(received == Content("p.qvf"));
    }
    EXPECT_TRUE(std::filesystem::is_symlink("link"));
    EXPECT_THAT(Here(), UnorderedElementsAre("p.qvf", "apart", "pipe", "link"));
}

// As qvcap does, which ends a run by them only after the card in work.
TEST_F(OutputTest, ASignalThatTheProgramAwaitsItselfInterruptsNothing) {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGTERM);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &awaited, &before);
    raise(SIGTERM);
    EXPECT_EQ(0, Create("q.qvf").status);
    int signal = 0;
    EXPECT_EQ(0, sigwait(&awaited, &signal)) << "it is still there";
    EXPECT_EQ(SIGTERM, signal);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_TRUE(Content("p.qvf") == Content("q.qvf"));
}

TEST_F(OutputTest, AFolderIsNoPlaceForAPackage) {
    std::filesystem::create_directory("folder");
    const QvftoolRun run = Create("folder");
    EXPECT_EQ(2, run.status);
    EXPECT_EQ("qvftool: folder: cannot be written: Is a directory\n", run.errors);
}

TEST_F(OutputTest, LinksAreFollowed) {
    std::filesystem::create_directory("real");
    Put("real/old.qvf", "old");
    std::filesystem::create_symlink("real/old.qvf", "one.qvf");
    std::filesystem::create_symlink("one.qvf", "two.qvf");
    std::filesystem::create_symlink("real/new.qvf", "dangling.qvf");
    for (const char* place : {"two.qvf", "dangling.qvf"}) {
        EXPECT_EQ(0, Create(place).status);
        EXPECT_TRUE(std::filesystem::is_symlink(place));
        EXPECT_TRUE(Content(place) == Content("p.qvf"));
    }
    EXPECT_TRUE(std::filesystem::is_symlink("one.qvf"));
    EXPECT_TRUE(std::filesystem::is_regular_file("real/new.qvf"));
    std::filesystem::create_symlink("round.qvf", "round.qvf");
    EXPECT_EQ("qvftool: round.qvf: its links lead nowhere\n", Create("round.qvf").errors);
}

TEST_F(OutputTest, AnExistingFileKeepsItsMode) {
    const mode_t mask = umask(022);
    Put("out.qvf", "old");
    for (const mode_t mode : {mode_t{0600}, mode_t{0664}, mode_t{0755}}) {
        ASSERT_EQ(0, chmod("out.qvf", mode));
        EXPECT_EQ(0, Create("out.qvf").status);
        EXPECT_EQ(mode, ModeOf("out.qvf"));
    }
    EXPECT_EQ(0, Create("new.qvf").status);
    EXPECT_EQ(mode_t{0644}, ModeOf("new.qvf"));
    umask(mask);
}

TEST_F(OutputTest, ExtractFollowsLinksAndKeepsTheFoldersMode) {
    std::filesystem::create_directory("real");
    ASSERT_EQ(0, chmod("real", 0700));
    std::filesystem::create_directory_symlink("real", "link");
    std::filesystem::create_directory_symlink("fresh", "dangling");
    for (const char* place : {"link", "dangling"}) {
        const QvftoolRun run = Run({"extract", "p.qvf", "-d", place});
        EXPECT_EQ(0, run.status) << run.errors;
        EXPECT_TRUE(std::filesystem::is_symlink(place));
    }
    EXPECT_EQ(mode_t{0700}, ModeOf("real"));
    EXPECT_TRUE(std::filesystem::exists("real/description.toml"));
    EXPECT_TRUE(std::filesystem::exists("fresh/description.toml"));
    ASSERT_EQ(0, mkfifo("pipe", 0600));
    EXPECT_THAT(Run({"extract", "p.qvf", "-d", "pipe"}).errors, HasSubstr("is there already"));
}

}  // namespace
}  // namespace qvtest
