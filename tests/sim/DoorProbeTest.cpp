// Everything that a program can do with a node, through the preload door: a table made by a program
// of its own, beside the one that a kernel's served nodes give. How programs end, and what
// they leave.
#include <fcntl.h>

#include <fstream>
#include <sstream>

#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "sim/Shell.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

using testing::HasSubstr;

class DoorProbeTest : public CommandsTest {
  protected:
    std::string Run(const std::string& command) {
        return Shell("qvcap-sim run " + m_cards + " -- " + command).output;
    }
    std::string JournalOf() {
        return Shell("qvcap-sim journal " + m_cards + " | cut -d' ' -f3-").output;
    }
};

std::string TextOf(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST_F(DoorProbeTest, TheTableIsThatOfServedNodesButForWhatIsListed) {
    Shell("qvcap-sim init " + m_cards);
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
    EXPECT_EQ("", Shell("ls " + m_cards + "/open").output);
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
    unlink("/dev/video98");  // should it be there all the same
}

TEST_F(DoorProbeTest, AProcessThatEndsWithoutClosingLeavesItsCloseLines) {
    Shell("qvcap-sim init " + m_cards);
    for (const char* how : {"exit", "kill", "terminate", "exec"}) {
        Shell("qvcap-sim journal --clear " + m_cards);
        Run(DOOR_PROBE " leave " + std::string(how));
        EXPECT_EQ(
            "open /dev/video0 fd=3 = 0\nopen /dev/qv-event fd=5 = 0\n"
            "close /dev/video0 fd=3 = 0\nclose /dev/qv-event fd=5 = 0\n",
            JournalOf())
            << how;
        EXPECT_EQ("", Shell("ls " + m_cards + "/open").output);
    }
}

TEST_F(DoorProbeTest, TheNextProgramOnTheFolderWritesTheCloseLineToo) {
    Shell("qvcap-sim init " + m_cards);
    Run(DOOR_PROBE " leave kill");
    Run(SIM_PROBE " /dev/video2");
    EXPECT_THAT(TextOf(m_cards + "/journal"),
                testing::ContainsRegex("open /dev/qv-event fd=5 = 0\n"
                                       "[0-9 ]+close /dev/video0 fd=3 = 0\n"
                                       "[0-9 ]+close /dev/qv-event fd=5 = 0\n"
                                       "[0-9 ]+open /dev/video2"));
}

// Somebody else has the folder's lock, so that the first open of the process waits.
TEST_F(DoorProbeTest, AForkDuringTheFirstOpenOfAnotherThreadLeavesTheChildItsCards) {
    Shell("qvcap-sim init " + m_cards);
    EXPECT_EQ(0, Shell("flock " + m_cards + "/cards.live sh -c 'echo >" + m_home +
                       "/held; exec sleep 0.5' & while [ ! -e " + m_home +
                       "/held ]; do sleep 0.01; done; qvcap-sim run " + m_cards +
                       " -- " DOOR_PROBE " leave early")
                     .status);
}

// The shell waits for the child, who has its output.
TEST_F(DoorProbeTest, ANodeIsClosedWhenItsLastHolderOfSeveralProcessesLetsGo) {
    Shell("qvcap-sim init " + m_cards);
    Run(DOOR_PROBE " leave child");
    EXPECT_EQ(
        "open /dev/video0 fd=3 = 0\nioctl /dev/video0 GetTemperature value=45 = 0\n"
        "close /dev/video0 fd=3 = 0\n",
        JournalOf());
    EXPECT_EQ("", Shell("ls " + m_cards + "/open").output);
}

}  // namespace
}  // namespace qvsim
