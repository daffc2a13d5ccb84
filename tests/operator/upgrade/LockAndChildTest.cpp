// The lock of the machine, who has a file open, the private folder and the child.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>

#include "BusyCards.h"
#include "Child.h"
#include "MachineLock.h"
#include "PrivateFolder.h"
#include "QvcapRig.h"
#include "StallWatch.h"
#include "support/TempFolder.h"

namespace qvtest {
namespace {

using testing::HasSubstr;

struct Folder : TempFolder {
    Folder() : TempFolder("qvlock") {}
    std::string operator/(const std::string& name) const { return Path() + "/" + name; }
};

// A process that does `work`, says so, and waits until it is ended.
class Other {
  public:
    explicit Other(const std::function<void()>& work) {
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        m_pid = fork();
        if (m_pid == 0) {
            work();
            const bool told = write(ends[1], "x", 1) == 1;
            while (told) pause();
            _exit(1);
        }
        char byte = 0;
        EXPECT_EQ(1, read(ends[0], &byte, 1));
        close(ends[0]);
        close(ends[1]);
    }
    ~Other() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    pid_t Number() const { return m_pid; }

  private:
    pid_t m_pid;
};

TEST(MachineLockTest, IsHadByOneAndSaysWho) {
    const Folder folder;
    {
        const Other other([&] {
            static qvo::MachineLock lock(folder / "lock");
            lock.Take();
        });
        qvo::MachineLock mine(folder / "lock");
        EXPECT_FALSE(mine.Take());
        ASSERT_EQ(1u, mine.Holders().size()) << "this process has it open, too, without holding it";
        EXPECT_EQ(other.Number(), mine.Holders()[0].pid);
        EXPECT_THAT(mine.HoldersText(),
                    HasSubstr("(process " + std::to_string(other.Number()) + ")"));
    }
    qvo::MachineLock mine(folder / "lock");
    EXPECT_TRUE(mine.Take()) << "it ends with its holder";
}

TEST(MachineLockTest, StaysWithAChildThatOutlivesItsParent) {
    const Folder folder;
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    std::unique_ptr<qvo::Child> child;
    {
        qvo::MachineLock lock(folder / "lock");
        ASSERT_TRUE(lock.Take());
        child = std::make_unique<qvo::Child>(qvo::ChildPlan{
            "/bin/sleep", {"1000"}, folder.Path(), folder / "output", lock.Descriptor()});
    }
    {
        qvo::MachineLock next(folder / "lock");
        EXPECT_FALSE(next.Take());
        EXPECT_EQ("sleep (process " + std::to_string(child->Number()) + ")", next.HoldersText());
    }
    kill(child->Number(), SIGKILL);
    EXPECT_TRUE(child->WaitFor(-1));
    qvo::MachineLock next(folder / "lock");
    EXPECT_TRUE(next.Take());
}

TEST(MachineLockTest, IsNoLinkToSomethingElse) {
    const Folder folder;
    ASSERT_EQ(0, symlink((folder / "target").c_str(), (folder / "lock").c_str()));
    EXPECT_THROW(qvo::MachineLock(folder / "lock"), qvf::Mistake);
    EXPECT_FALSE(std::filesystem::exists(folder / "target"));
    EXPECT_THROW(qvo::MachineLock(folder / "none/lock"), qvf::Mistake);
}

TEST(MachineLockTest, OverwritesNoOtherFile) {
    const Folder folder;
    for (const std::string content : {"QVFH", "7", "7\nx", "\n", "x\n"}) {
        std::ofstream(folder / "lock") << content;
        EXPECT_THROW(qvo::MachineLock(folder / "lock"), qvf::Mistake) << content;
        EXPECT_EQ(content, FileText(folder / "lock"));
    }
    std::ofstream(folder / "lock") << "4711\n";
    EXPECT_TRUE(qvo::MachineLock(folder / "lock").Take()) << "what a holder has written";
}

// A process that has the file open until it is ended, and that another one has started.
class Stranger {
  public:
    explicit Stranger(const std::string& file) {
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        m_parent = fork();
        if (m_parent == 0) {
            const pid_t own = fork();
            if (own == 0) {
                static_cast<void>(open(file.c_str(), O_RDONLY | O_CLOEXEC));
                const pid_t number = getpid();
                const bool told = write(ends[1], &number, sizeof number) == sizeof number;
                while (told) pause();
                _exit(1);
            }
            waitpid(own, nullptr, 0);
            _exit(0);
        }
        EXPECT_EQ(static_cast<ssize_t>(sizeof m_pid), read(ends[0], &m_pid, sizeof m_pid));
        close(ends[0]);
        close(ends[1]);
    }
    ~Stranger() {
        if (m_pid > 0) kill(m_pid, SIGKILL);
        waitpid(m_parent, nullptr, 0);
    }
    pid_t Number() const { return m_pid; }

  private:
    pid_t m_parent;
    pid_t m_pid = 0;
};

TEST(BusyCardsTest, TheToolsOfThisRunDoNotCountUntilTheyAreForgotten) {
    const Folder folder;
    const std::string node = folder / "video0";
    std::ofstream(node) << "x";
    qvo::OwnTools tools;
    const std::string script = "exec 5<" + node + "; exec sleep 1000";
    const auto tool =
        tools.Start({"/bin/sh", {"-c", script}, folder.Path(), folder / "output", -1});
    WaitUntil([&] { return qvo::ProcessesWith({node}).size() == 1; });
    EXPECT_TRUE(tools.OthersWith({node}).empty());
    tools.Forget(*tool);
    ASSERT_EQ(1u, tools.OthersWith({node}).size());
    EXPECT_EQ(tool->Number(), tools.OthersWith({node})[0].pid);
    kill(tool->Number(), SIGKILL);
}

// A shell that starts a job and is then replaced by qvcap leaves it such a child.
TEST(BusyCardsTest, AChildThatIsNoToolOfThisRunCounts) {
    const Folder folder;
    const std::string node = folder / "video0";
    std::ofstream(node) << "x";
    const Other job([&] { static_cast<void>(open(node.c_str(), O_RDONLY | O_CLOEXEC)); });
    qvo::OwnTools tools;
    ASSERT_EQ(1u, tools.OthersWith({node}).size());
    EXPECT_EQ(job.Number(), tools.OthersWith({node})[0].pid);
}

TEST(BusyCardsTest, NamesWhoeverHasANodeOpenButNotItself) {
    const Folder folder;
    const std::string node = folder / "video0";
    std::ofstream(node) << "x";
    EXPECT_TRUE(qvo::UsersOf({node}).empty());
    const int mine = open(node.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(qvo::UsersOf({node}).empty()) << "itself";
    close(mine);
    const Stranger other(node);
    const std::vector<qvo::Process> users = qvo::UsersOf({folder / "none", node, node});
    ASSERT_EQ(1u, users.size());
    EXPECT_EQ(other.Number(), users[0].pid);
    EXPECT_THAT(qvo::ProcessesText(users), HasSubstr("operator_upgrad (process "));
}

TEST(BusyCardsTest, ANodeCountsByItsDeviceWhateverItsName) {
    const Folder folder;
    const Stranger other("/dev/full");
    const std::vector<qvo::Process> users = qvo::UsersOf({"/dev/full"});
    EXPECT_TRUE(std::any_of(users.begin(), users.end(),
                            [&](const auto& user) { return user.pid == other.Number(); }));
}

TEST(ProcessesTest, NamesCannotSteerATerminal) {
    EXPECT_EQ("a\\x1b[31m (process 7)", qvo::ProcessText({7, "a\x1b[31m", false}));
}

TEST(PrivateFolderTest, HoldsThePackageAloneAndIsNobodyElses) {
    const Folder folder;
    std::string path;
    {
        const qvf::Bytes first = {1, 2};
        const qvf::Bytes last = {3};
        const qvo::PrivateFolder mine(folder.Path(), {first, last});
        path = mine.Path();
        struct stat status;
        ASSERT_EQ(0, stat(path.c_str(), &status));
        EXPECT_EQ(0700u, status.st_mode & 07777);
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path))
            names.push_back(entry.path().filename().string());
        ASSERT_THAT(names, testing::ElementsAre("package.qvf"));
        EXPECT_EQ("\1\2\3", FileText(path + "/package.qvf"));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_THROW(qvo::PrivateFolder(folder / "none", {}), qvf::Mistake);
}

TEST(PrivateFolderTest, WhatAKilledRunHasLeftIsRemovedAndNothingElse) {
    const Folder folder;
    std::filesystem::create_directories(folder / ".package-abc/x");
    std::filesystem::create_directories(folder / "other");
    qvo::PrivateFolder::RemoveLeftOvers(folder.Path());
    EXPECT_FALSE(std::filesystem::exists(folder / ".package-abc"));
    EXPECT_TRUE(std::filesystem::exists(folder / "other"));
    qvo::PrivateFolder::RemoveLeftOvers(folder / "none");
}

TEST(StallWatchTest, TellsAgainAndAgainUntilItIsOver) {
    std::atomic<int> last = 0;
    const qvo::StallWatch watch(1, [&last](int seconds) { last = seconds; });
    WaitUntil([&] { return last == 2; });
}

TEST(StallWatchTest, EndsAtOnceWhenNothingHangs) {
    bool told = false;
    {
        const qvo::StallWatch watch(3600, [&told](int) { told = true; });
    }
    EXPECT_FALSE(told);
}

class ChildTest : public testing::Test {
  protected:
    // A shell's word on what it is started with.
    qvo::ChildEnd Shell(const std::string& script) {
        qvo::Child child({"/bin/sh", {"-c", script}, folder.Path(), folder / "output", -1});
        while (!child.WaitFor(1000)) {
        }
        return *child.Poll();
    }
    std::string Output() const { return FileText(folder / "output"); }
    const Folder folder;
};

TEST_F(ChildTest, HasASessionOfItsOwnNoInputAndAFileForItsOutput) {
    const std::string script =
        "read line; echo \"read $?\"; echo error >&2; pwd; readlink /proc/$$/fd/1;"
        "read number name state parent group session rest </proc/$$/stat;"
        "[ $number = $group ] && [ $number = $session ] && echo own session";
    EXPECT_EQ(0, Shell(script).status);
    const std::string here = std::filesystem::canonical(folder.Path());
    EXPECT_EQ("read 1\nerror\n" + here + "\n" + here + "/output\n" + "own session\n", Output());
}

TEST_F(ChildTest, IgnoresAllThatEndsAProgramButKill) {
    qvo::Child child({"/bin/sleep", {"1000"}, folder.Path(), folder / "output", -1});
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE}) kill(child.Number(), signal);
    std::ifstream status("/proc/" + std::to_string(child.Number()) + "/status");
    uint64_t ignored = 0;
    uint64_t blocked = 1;
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigIgn:")) ignored = std::stoull(line.substr(8), nullptr, 16);
        if (line.starts_with("SigBlk:")) blocked = std::stoull(line.substr(8), nullptr, 16);
    }
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE})
        EXPECT_NE(0u, ignored >> (signal - 1) & 1) << signal;
    EXPECT_EQ(0u, blocked);
    EXPECT_FALSE(child.Poll());
    kill(child.Number(), SIGKILL);
    EXPECT_TRUE(child.WaitFor(-1));
    EXPECT_EQ(SIGKILL, child.Poll()->signal);
}

TEST_F(ChildTest, TellsItsEndAndWhyItCouldNotBegin) {
    EXPECT_EQ(7, Shell("exit 7").status);
    EXPECT_THROW(qvo::Child({"/bin/none", {}, folder.Path(), folder / "a", -1}), qvf::Mistake);
    EXPECT_THROW(qvo::Child({"/bin/sh", {}, folder / "none", folder / "b", -1}), qvf::Mistake);
    EXPECT_THROW(qvo::Child({"/bin/sh", {}, folder.Path(), folder / "output", -1}), qvf::Mistake)
        << "a file that is there is not written over";
}

TEST_F(ChildTest, OnlyTheLockIsHandedOn) {
    const int kept = open("/dev/null", O_RDONLY);  // as one that this process was started with
    const int lock = open((folder / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    {
        qvo::Child child({"/bin/ls", {"/proc/self/fd"}, folder.Path(), folder / "output", lock});
        while (!child.WaitFor(1000)) {
        }
    }
    close(kept);
    close(lock);
    // 4 is what ls looks through.
    EXPECT_EQ("0\n1\n2\n3\n4\n", Output());
}

}  // namespace
}  // namespace qvtest
