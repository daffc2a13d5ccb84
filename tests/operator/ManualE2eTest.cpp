// What qvcap(8) shows, run as it stands: the examples, and the exit statuses.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "ExitStatus.h"
#include "QvcapProcess.h"
#include "support/ManualPage.h"

namespace qvtest {
namespace {

TEST(QvcapManualTest, TheExamplesRun) {
    const ManualPage page{QV_MANUAL_FOLDER "/qvcap.8.scd"};
    const std::vector<std::string> blocks = page.Blocks("EXAMPLES");
    EXPECT_LE(3u, blocks.size());
    for (const std::string& block : blocks) {
        const QvcapFolder folder;  // each begins with cards of its own
        std::ofstream(folder / "commands.sh") << block;
        // One channel without a package stays open in the tool on purpose.
        std::ofstream(folder / "leaks") << "leak:QVOpenChannelByPath\n";
        const std::string line = "cd '" + folder.Dir() +
                                 "' && LSAN_OPTIONS=print_suppressions=0:suppressions=$PWD/leaks "
                                 "PATH=" QV_PROGRAM_FOLDERS
                                 ":$PATH bash -eu -o pipefail commands.sh >out.txt 2>&1 </dev/null";
        EXPECT_EQ(0, std::system(line.c_str())) << block << ReadWholeFile(folder / "out.txt");
    }
}

TEST(QvcapManualTest, TheExitStatusesAreThoseOfTheTable) {
    const ManualPage page{QV_MANUAL_FOLDER "/qvcap.8.scd"};
    std::set<std::string> known;
    for (const qvo::ExitStatusRow& row : qvo::kExitStatuses)
        known.insert(std::to_string(qvo::Number(row.status)));
    const std::vector<std::string> terms = page.BoldTerms("EXIT STATUS");
    EXPECT_EQ(known, std::set<std::string>(terms.begin(), terms.end()));
}

}  // namespace
}  // namespace qvtest
