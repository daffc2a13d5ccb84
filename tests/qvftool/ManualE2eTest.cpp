// What qvftool(1) shows, run as it stands: the description, the examples, the exit statuses.
#include <sys/wait.h>

#include <set>

#include "QvftoolFixture.h"
#include "support/ManualPage.h"

namespace qvtest {
namespace {

class ManualE2eTest : public QvftoolFixture {
  protected:
    // In this folder, with the programs on PATH.
    static int Status(const std::string& commands) {
        Put("commands.sh", commands);
        // One channel without a package stays open on purpose.
        Put("leaks", "leak:QVOpenChannelByPath\n");
        const int status = std::system(
            "LSAN_OPTIONS=print_suppressions=0:suppressions=$PWD/leaks "
            "PATH=" QV_QVFTOOL_FOLDER ":" QV_SIM_FOLDER ":" QV_TOOL_FOLDER
            ":$PATH "
            "bash -eu -o pipefail commands.sh >out.txt 2>errors.txt </dev/null");
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status);
    }

    ManualPage page{QV_MANUAL_FOLDER "/qvftool.1.scd"};
};

TEST_F(ManualE2eTest, TheDescriptionMakesAPackageThatIsWell) {
    const std::vector<std::string> blocks = page.Blocks("DESCRIPTION FILES");
    ASSERT_EQ(1u, blocks.size());
    Put("d.toml", blocks[0]);
    Put("main.bin", "main");
    EXPECT_EQ(0, Status("qvftool create d.toml -o p.qvf; qvftool info p.qvf"))
        << Text("errors.txt");
    EXPECT_THAT(Text("out.txt"), testing::AllOf(testing::HasSubstr("Factory.Main"),
                                                testing::HasSubstr("main     clear")));
}

TEST_F(ManualE2eTest, TheExamplesRun) {
    const std::vector<std::string> blocks = page.Blocks("EXAMPLES");
    EXPECT_LE(3u, blocks.size());
    for (const std::string& block : blocks)
        EXPECT_EQ(0, Status(block)) << block << Text("out.txt") << Text("errors.txt");
}

TEST_F(ManualE2eTest, TheExitStatusesAreThoseOfTheProgram) {
    Package().Section("A", 0x1000, 10).Write("a.qvf");
    Package().Write("b.qvf");
    std::set<std::string> seen;
    for (const char* command : {"check a.qvf", "check b.qvf", "diff a.qvf b.qvf", "info none",
                                "bogus", "info a.qvf >/dev/full"})
        seen.insert(std::to_string(Status(std::string("qvftool ") + command)));
    const std::vector<std::string> terms = page.BoldTerms("EXIT STATUS");
    EXPECT_EQ(seen, std::set<std::string>(terms.begin(), terms.end()));
}

}  // namespace
}  // namespace qvtest
