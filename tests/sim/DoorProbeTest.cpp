// Everything that a program can do with a node, through the preload door: a table made by a program
// of its own, beside the one that a kernel's served nodes give. How programs end, and what
// they leave.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "sim/Shell.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class DoorProbeTest : public CommandsTest {
  protected:
    std::string Run(const std::string& command) {
        return Shell("qvcap-sim run " + cards_ + " -- " + command).output;
    }
    std::string JournalOf() {
        return Shell("qvcap-sim journal " + cards_ + " | cut -d' ' -f3-").output;
    }
};

std::string TextOf(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST_F(DoorProbeTest, TheTableIsThatOfServedNodesButForWhatIsListed) {
    Shell("qvcap-sim init " + cards_);
    const std::string document = TextOf(SIM_DOCUMENT);
    std::istringstream expected(TextOf(SIM_PROBE_TABLE));
    std::string table;
    size_t rows = 0;
    for (std::string line; std::getline(expected, line); ++rows) {
        const size_t door = line.find(" | door: ");
        const std::string name = line.substr(0, line.find(':'));
        if (door != std::string::npos) {
            EXPECT_THAT(document, HasSubstr("`" + name + "`")) << "a difference without a reason";
        }
        table += (door == std::string::npos ? line : name + ": " + line.substr(door + 9)) + "\n";
    }
    EXPECT_GT(rows, 100u);
    EXPECT_EQ(table, Run(DOOR_PROBE));
    const std::string journal = JournalOf();
    const auto count = [&](const std::string& action) {
        std::istringstream lines(journal);
        size_t found = 0;
        for (std::string line; std::getline(lines, line);)
            found += line.rfind(action, 0) == 0 && line.find("= 0") != std::string::npos ? 1 : 0;
        return found;
    };
    EXPECT_EQ(count("open"), count("close")) << journal;
    EXPECT_EQ("", Shell("ls " + cards_ + "/open").output);
}

TEST_F(DoorProbeTest, NothingIsEverMadeInTheMachinesOwnDev) {
    SimRig rig;
    rig.Add(Pelix());
    rig.Attach();
    errno = 0;
    EXPECT_EQ(-1, creat("/dev/video98", 0600));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(-1, open("/dev/video98", O_RDWR | O_CREAT, 0600));
    EXPECT_EQ(nullptr, std::fopen("/dev/../dev//video98", "w"));
    rig.Detach();
    EXPECT_EQ(-1, access("/dev/video98", F_OK)) << "not on this machine either";
}

TEST_F(DoorProbeTest, AProcessThatEndsWithoutClosingLeavesItsCloseLines) {
    Shell("qvcap-sim init " + cards_);
    for (const char* end : {"os._exit(3)", "os.kill(os.getpid(), 9)", "os.kill(os.getpid(), 15)",
                            "os.execv(\"/bin/true\", [\"true\"])"}) {
        Shell("qvcap-sim journal --clear " + cards_);
        Run("python3 -c 'import os; a = os.open(\"/dev/video0\", os.O_RDWR); b = os.dup(a); "
            "c = os.open(\"/dev/qv-event\", os.O_RDWR); " +
            std::string(end) + "'");
        EXPECT_EQ(
            "open /dev/video0 fd=3 = 0\nopen /dev/qv-event fd=5 = 0\n"
            "close /dev/video0 fd=3 = 0\nclose /dev/qv-event fd=5 = 0\n",
            JournalOf())
            << end;
    }
}

TEST_F(DoorProbeTest, TheNextProgramOnTheFolderWritesTheCloseLineToo) {
    Shell("qvcap-sim init " + cards_);
    Run("python3 -c 'import os; os.open(\"/dev/video0\", os.O_RDWR); os._exit(0)'");
    Run(SIM_PROBE " /dev/video2");
    EXPECT_THAT(TextOf(cards_ + "/journal"),
                testing::ContainsRegex("open /dev/video0 fd=3 = 0\n"
                                       "[0-9 ]+close /dev/video0 fd=3 = 0\n"
                                       "[0-9 ]+open /dev/video2"));
}

TEST_F(DoorProbeTest, ANodeIsClosedWhenItsLastHolderOfSeveralProcessesLetsGo) {
    Shell("qvcap-sim init " + cards_);
    // A parent that ends first, and a child that still asks.
    Run("bash -c 'exec 7<>/dev/video0; (sleep 0.2; exec 7>&-; : >" + home_ +
        "/done) & exit 0'; "
        "while [ ! -e " +
        home_ + "/done ]; do sleep 0.02; done");
    EXPECT_THAT(JournalOf(), testing::MatchesRegex("open /dev/video0 fd=3 = 0\n"
                                                   "close /dev/video0 fd=[0-9]+ = 0\n"));
    EXPECT_EQ("", Shell("ls " + cards_ + "/open").output);
}

}  // namespace
}  // namespace qvsim
