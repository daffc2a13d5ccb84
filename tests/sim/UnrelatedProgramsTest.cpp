// Programs that know nothing of cards, under `qvcap-sim run`: they see nodes as they see any. Those
// of this machine are of one word size; a configuration of the other has the probes alone.
#include <filesystem>
#include <fstream>

#include "gmock/gmock.h"
#include "sim/Shell.h"

namespace qvsim {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

class UnrelatedProgramsTest : public CommandsTest {
  protected:
    void SetUp() override {
        CommandsTest::SetUp();
        ASSERT_EQ(0, Shell("qvcap-sim init " + m_cards).status);
    }
    // Why a program cannot be tried here, empty when it can. Each of them is tried in the native
    // configuration, for which scripts/test installs it.
    static std::string WhyNot(const std::string& program) {
#if defined(__SANITIZE_THREAD__)
        return "a door with the thread sanitizer in it goes into no other program";
#endif
        if (sizeof(void*) == 4) return "this machine's programs are 64-bit ones";
#if defined(__SANITIZE_ADDRESS__)
        if (program == "strace" || program == "gdb" || program == "valgrind")
            return program + " and a sanitizer's library watch the same things";
#endif
        if (Shell("command -v " + program).status != 0) return "there is no " + program;
        return {};
    }
    Outcome Run(const std::string& command) {
        return Shell("qvcap-sim run " + m_cards + " -- " + command);
    }
    std::string JournalOf() {
        return Shell("qvcap-sim journal " + m_cards + " | cut -d' ' -f3-").output;
    }
};

// Leaves the test with the reason that WhyNot gives: a sanitizer that watches the same things as
// the program, or a program that is not installed. `scripts/test` installs all of them, so the
// native configuration runs every one of these tests.
#define QVSIM_NEEDS(program) \
    if (const std::string why = WhyNot(program); !why.empty()) GTEST_SKIP() << why

TEST_F(UnrelatedProgramsTest, Bash) {
    QVSIM_NEEDS("bash");
    EXPECT_EQ("/dev/video0 /dev/video1\n", Run("bash -c 'echo /dev/video[01]'").output);
    EXPECT_EQ(0, Run("bash -c '[ -c /dev/video0 -a -r /dev/video0 -a ! -e /dev/video9 ]'").status);
    EXPECT_EQ(0, Run("bash -c 'exec 5</dev/video0; (exec 6<&5); exec 5<&-'").status);
    EXPECT_THAT(JournalOf(), HasSubstr("open /dev/video0"));
    EXPECT_THAT(JournalOf(), HasSubstr("close /dev/video0"));
    EXPECT_EQ("crw-------\n", Run("bash -c 'ls -l /dev/video0 | cut -c1-10'").output);
}

// In a /dev of its own: a mistake must not reach that of the machine.
TEST_F(UnrelatedProgramsTest, NothingIsMadeOrChangedInTheMachinesOwnDev) {
    QVSIM_NEEDS("unshare");
    // Root, as in CI, may do so everywhere.
    if (Shell("unshare -rm mount -t tmpfs none /dev").status != 0)
        GTEST_SKIP() << "this machine gives no file systems of its own to tests";
    std::ofstream(m_home + "/try.sh") << R"sh(
cd "$1"
try() { touch here; "$@" >/dev/null 2>&1 || echo "$1: $?"; }
for name in video0 video9; do
    try mv here /dev/$name
    try ln here /dev/$name
    try ln -s here /dev/$name
    try mkdir /dev/$name
    try mkfifo /dev/$name
    try mknod /dev/$name c 1 3
    try mkdir -p /dev/../dev/$name
    try chmod 777 /dev/$name
    try chown 0 /dev/$name
    try rm /dev/$name
    try mv /dev/$name there
    try python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind("/dev/" + sys.argv[1])' $name
done
ls /dev | tr '\n' ' '
)sh";
    const Outcome outcome =
        Shell("unshare -rm sh -c 'mount -t tmpfs none /dev && qvcap-sim run " + m_cards +
              " -- sh " + m_home + "/try.sh " + m_home + "; ls -A /dev'");
    const std::string all =
        "mv: 1\nln: 1\nln: 1\nmkdir: 1\nmkfifo: 1\nmknod: 1\nmkdir: 1\nchmod: 1\nchown: 1\n"
        "rm: 1\nmv: 1\npython3: 1\n";
    EXPECT_EQ(all + all + "null qv-event video0 video1 video2 video3 video4 video5 video6 null\n",
              outcome.output);
}

TEST_F(UnrelatedProgramsTest, Find) {
    QVSIM_NEEDS("find");
    EXPECT_EQ("/dev/video0\n/dev/video1\n",
              Run("find /dev -maxdepth 1 -type c -name 'video[01]' | sort").output);
}

TEST_F(UnrelatedProgramsTest, Tar) {
    QVSIM_NEEDS("tar");
    const std::string file = m_home + "/nodes.tar";
    EXPECT_EQ(0, Run("tar cf " + file + " -C /dev video0 qv-event").status);
    EXPECT_EQ("c video0\nc qv-event\n",
              Shell("tar tvf " + file + " | awk '{ print substr($1, 1, 1), $NF }'").output);
}

TEST_F(UnrelatedProgramsTest, Python) {
    QVSIM_NEEDS("python3");
    std::ofstream(m_home + "/look.py") << R"py(
import fcntl, os, stat, subprocess, sys
print(stat.S_ISCHR(os.stat("/dev/video0").st_mode), "video0" in os.listdir("/dev"))
fd = os.open("/dev/video0", os.O_RDWR)
print(stat.S_ISCHR(os.fstat(fd).st_mode))
other = fcntl.fcntl(fd, fcntl.F_DUPFD_CLOEXEC, 50)
os.close(fd)
record = bytearray(224)
fcntl.ioctl(other, 0x80E05806, record)
print(record[78:92].decode())
try:
    fcntl.ioctl(other, 0x80E05899, record)
except OSError as error:
    print(error.strerror)
child = "import fcntl, sys; fcntl.ioctl(int(sys.argv[1]), 0x80E05806, bytearray(224)); print('child')"
print(subprocess.run([sys.executable, "-c", child, str(other)], pass_fds=[other],
                     stdout=subprocess.PIPE, text=True).stdout.strip())
os.closerange(3, 2000)
with open("/dev/video1", "rb", buffering=0) as node:
    print(node.fileno())
)py";
    EXPECT_EQ("True True\nTrue\nPelix Duo HDMI\nInappropriate ioctl for device\nchild\n3\n",
              Run("python3 " + m_home + "/look.py").output);
}

TEST_F(UnrelatedProgramsTest, Strace) {
    QVSIM_NEEDS("strace");
    EXPECT_EQ("3 Pelix Duo HDMI 65536\n",
              Run("strace -f -o " + m_home + "/trace " SIM_PROBE " /dev/video0").output);
    EXPECT_THAT(Shell("tail -n 1 " + m_home + "/trace").output, HasSubstr("exited with 0"));
}

TEST_F(UnrelatedProgramsTest, Gdb) {
    QVSIM_NEEDS("gdb");
    EXPECT_THAT(Run("gdb -q -batch -ex run --args " SIM_PROBE " /dev/video0").output,
                HasSubstr("3 Pelix Duo HDMI 65536\n"));
}

TEST_F(UnrelatedProgramsTest, Valgrind) {
    QVSIM_NEEDS("valgrind");
    const Outcome outcome = Run("valgrind -q --error-exitcode=9 " SIM_PROBE " /dev/video0");
    EXPECT_EQ("3 Pelix Duo HDMI 65536\n", outcome.output);
    EXPECT_EQ(0, outcome.status);
}

// No door reaches these two, which is said at once; tests/lab/probe.suite has the static one on
// real nodes.
TEST_F(UnrelatedProgramsTest, AStaticCProgramIsToldWhatWorks) {
    const Outcome outcome = Run(SIM_PROBE_STATIC " /dev/video0");
    EXPECT_EQ(2, outcome.status);
    EXPECT_EQ("qvcap-sim: run: " SIM_PROBE_STATIC
              " is linked statically and loads no door; `qvcap-sim serve` makes nodes for any "
              "program\n",
              outcome.output);
    EXPECT_EQ("", JournalOf());
}

TEST_F(UnrelatedProgramsTest, AGoProgramIsToldWhatWorks) {
    QVSIM_NEEDS("gosu");
    const Outcome outcome = Run("gosu --version");
    EXPECT_EQ(2, outcome.status);
    EXPECT_THAT(outcome.output,
                testing::MatchesRegex("qvcap-sim: run: .*/gosu is a Go program, which calls the "
                                      "kernel without the C library and so past any door; "
                                      "`qvcap-sim serve` makes nodes for any program\n"));
}

// The parent ends at once; the daemon has closed all that it can think of before it asks.
TEST_F(UnrelatedProgramsTest, ADaemonThatForksAndClosesEverything) {
    const std::string said = m_home + "/said";
    EXPECT_EQ(0, Run(DOOR_PROBE " daemon " + said).status);
    // It has this test's output until it has ended.
    EXPECT_EQ("ok\n", Shell("cat " + said).output);
    const std::string journal = JournalOf();
    EXPECT_THAT(journal, EndsWith("close /dev/video0 fd=3 = 0\n"));
    // Who of the two let go of the first one last is open.
    EXPECT_EQ("2\n", Shell("qvcap-sim journal " + m_cards + " | grep -c ' open '").output)
        << journal;
    EXPECT_EQ("2\n", Shell("qvcap-sim journal " + m_cards + " | grep -c ' close '").output)
        << journal;
}

TEST_F(UnrelatedProgramsTest, SpacesAndColonsInTheNamesOfFolders) {
    const std::string odd = m_home + "/a b:c";
    std::filesystem::create_directory(odd);
    EXPECT_EQ(0, Shell("qvcap-sim init '" + odd + "/cards'").status);
    EXPECT_EQ("3 Pelix Duo HDMI 65536\n",
              Shell("qvcap-sim run '" + odd + "/cards' -- " SIM_PROBE " /dev/video0").output);
    const auto from = std::filesystem::path(QVCAP_SIM).parent_path();
    for (const char* part : {"door", "standins", "libqvsim-preload.so", "libqvsim-empty.so"})
        if (std::filesystem::exists(from / part))
            std::filesystem::copy(from / part, odd + "/" + part,
                                  std::filesystem::copy_options::recursive |
                                      std::filesystem::copy_options::copy_symlinks);
    std::filesystem::copy(QVCAP_SIM, odd + "/qvcap-sim");
    const std::string run = "'" + odd + "/qvcap-sim' run ";
    EXPECT_EQ("3 Pelix Duo HDMI 65536\n",
              Shell(run + m_cards + " -- " SIM_PROBE " /dev/video0").output);
    const Outcome refused = Shell(run + "'" + odd + "/cards' -- " SIM_PROBE " /dev/video0");
    EXPECT_EQ(2, refused.status);
    EXPECT_THAT(refused.output, HasSubstr("have a space or a colon in their names"));
}

}  // namespace
}  // namespace qvsim
