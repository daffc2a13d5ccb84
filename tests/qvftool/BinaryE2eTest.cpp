// The real qvftool as a process: its exit status and its streams.
#include <sys/wait.h>

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
    Package().Write("a.qvf");
    EXPECT_EQ(0, Status("check ."));
    EXPECT_EQ("", Text("out.txt"));
    Package().Write("b.qvf");
    EXPECT_EQ(1, Status("check ."));
    EXPECT_THAT(Text("out.txt"), testing::StartsWith("b.qvf: "));
    EXPECT_EQ("", Text("errors.txt"));
    EXPECT_EQ(2, Status("check nowhere"));
    EXPECT_EQ("", Text("out.txt"));
    EXPECT_THAT(Text("errors.txt"), testing::StartsWith("qvftool: nowhere: "));
    EXPECT_EQ(2, Status(""));
    EXPECT_EQ(0, Status("--help"));
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
    const int status = std::system(QV_QVFTOOL_FILE " info a.qvf >/dev/full");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(2, WEXITSTATUS(status));
}

}  // namespace
}  // namespace qvtest
