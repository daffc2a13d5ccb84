// The real qvftool as a process: its exit status and its streams.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "QvftoolFixture.h"

namespace qvtest {
namespace {

class BinaryE2eTest : public QvftoolFixture {
  protected:
    static int Status(const std::string& arguments) {
        const int status =
            std::system((QV_QVFTOOL_FILE " " + arguments + " >out.txt 2>errors.txt").c_str());
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status);
    }
};

TEST_F(BinaryE2eTest, TheExitStatusTellsCleanFindingsAndErrors) {
    Package().Section("A", 0x1000, 10).Write("a.qvf");
    EXPECT_EQ(0, Status("check ."));
    EXPECT_EQ("", Text("out.txt"));
    Package().Write("a.qvf");
    EXPECT_EQ(1, Status("check ."));
    EXPECT_THAT(Text("out.txt"), testing::StartsWith("a.qvf: error: "));
    EXPECT_EQ("", Text("errors.txt"));
    EXPECT_EQ(2, Status("check nowhere"));
    EXPECT_EQ("", Text("out.txt"));
    EXPECT_THAT(Text("errors.txt"), testing::StartsWith("qvftool: nowhere: "));
    EXPECT_EQ(2, Status(""));
    EXPECT_EQ(0, Status("--help"));
}

// Files get the numbers of streams that are closed.
TEST_F(BinaryE2eTest, ClosedStreamsSpoilNoSignature) {
    ASSERT_EQ(0, std::system("ssh-keygen -q -t ed25519 -N '' -f key"));
    Package().Section("A", 0x1000, 10).Write("a.qvf");
    for (const char* closed : {"", "<&-", "2>&-", "<&- 2>&-", "<&- >&- 2>&-"}) {
        std::filesystem::remove("a-qvf.sig");
        const std::string streams = std::string(" ") + closed;
        const auto run = [&](const char* arguments) {
            return std::system((std::string(QV_QVFTOOL_FILE " ") + arguments + streams).c_str());
        };
        EXPECT_EQ(0, run("sign --key key a.qvf")) << closed;
        EXPECT_EQ(0, run("check --key key.pub a.qvf")) << closed;
    }
}

TEST_F(BinaryE2eTest, APackageIsTakenApartAndMadeAgain) {
    Package().Section("Factory.Main", 0x1000, 70000).Write("a.qvf");
    EXPECT_EQ(0, Status("extract a.qvf -d apart"));
    EXPECT_EQ(0, Status("create apart/description.toml -o again.qvf"));
    EXPECT_TRUE(Content("a.qvf") == Content("again.qvf"));
    EXPECT_EQ(0, Status("info again.qvf --json"));
}

TEST_F(BinaryE2eTest, WhatCannotBePrintedIsAnError) {
    Package().Write("a.qvf");
    const int status = std::system(QV_QVFTOOL_FILE " info a.qvf >/dev/full 2>errors.txt");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(2, WEXITSTATUS(status));
    EXPECT_EQ("qvftool: standard output: cannot be written: No space left on device\n",
              Text("errors.txt"));
    EXPECT_EQ(0, Status("extract a.qvf -d apart"));
    const int created =
        std::system(QV_QVFTOOL_FILE " create apart/description.toml -o - >/dev/full 2>errors.txt");
    ASSERT_TRUE(WIFEXITED(created));
    EXPECT_EQ(2, WEXITSTATUS(created));
    EXPECT_THAT(Text("errors.txt"), testing::HasSubstr("standard output: cannot be written"));
}

// Large enough for a signal to come while it is written.
constexpr char kLargePackage[] =
    "product_code = 1\nhardware = \"A\"\nfirmware = \"1.1\"\ncompatibility = 1\n"
    "[[section]]\nname = \"A\"\naddress = 0\nfile = \"large.bin\"\n";
constexpr uintmax_t kLargeSize = uintmax_t{96} << 20;

// Runs a command and sends a signal once something new is in the folder; its status as of
// waitpid.
class InterruptedE2eTest : public BinaryE2eTest {
  protected:
    InterruptedE2eTest() {
        Put("d.toml", kLargePackage);
        Put("large.bin", "");
        std::filesystem::resize_file("large.bin", kLargeSize);
    }
    static pid_t Start(std::vector<std::string> arguments, int ignored) {
        arguments.insert(arguments.begin(), "qvftool");
        std::vector<char*> argv;
        for (std::string& text : arguments) argv.push_back(text.data());
        argv.push_back(nullptr);
        const pid_t pid = fork();
        if (pid != 0) return pid;
        if (ignored != 0) signal(ignored, SIG_IGN);
        execv(QV_QVFTOOL_FILE, argv.data());
        _exit(127);
    }
    static int Interrupted(const std::vector<std::string>& arguments, int signal, bool ignored) {
        const size_t before = Here().size();
        const pid_t pid = Start(arguments, ignored ? signal : 0);
        int status = 0;
        pid_t ended = 0;
        while (Here().size() == before && (ended = waitpid(pid, &status, WNOHANG)) == 0) {
        }
        EXPECT_EQ(0, ended) << "it ended before it could be interrupted";
        for (const std::string& name : Here()) {
            const bool isAPackage = name.find(".qvf") != name.npos;
            EXPECT_TRUE(!isAPackage || name == "big.qvf") << "the tool would take " << name;
        }
        EXPECT_EQ(0, kill(pid, signal));
        EXPECT_EQ(pid, waitpid(pid, &status, 0));
        return status;
    }
    // A signal may come too late, when all is written: then it is tried again.
    static void ExpectNothingLeft(const std::vector<std::string>& arguments,
                                  const std::string& made, int signal) {
        const std::vector<std::string> before = Here();
        for (int attempt = 0; attempt < 20; ++attempt) {
            const int status = Interrupted(arguments, signal, false);
            ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
            if (std::filesystem::remove_all(made) > 0) continue;
            EXPECT_THAT(Here(), testing::UnorderedElementsAreArray(before));
            return;
        }
        ADD_FAILURE() << "no signal came in time";
    }
};

TEST_F(InterruptedE2eTest, CreateLeavesNothingBehind) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        ExpectNothingLeft({"create", "d.toml", "-o", "out.qvf"}, "out.qvf", signal);
}

TEST_F(InterruptedE2eTest, ExtractLeavesNothingBehind) {
    ASSERT_EQ(0, Status("create d.toml -o big.qvf"));
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        ExpectNothingLeft({"extract", "big.qvf", "-d", "apart"}, "apart", signal);
}

TEST_F(InterruptedE2eTest, ASignalThatIsIgnoredInterruptsNothing) {
    const int status = Interrupted({"create", "d.toml", "-o", "out.qvf"}, SIGHUP, true);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(157 + 28 + kLargeSize, std::filesystem::file_size("out.qvf"));
    EXPECT_THAT(Here(), testing::UnorderedElementsAre("d.toml", "large.bin", "out.qvf"));
}

}  // namespace
}  // namespace qvtest
