// What qvftool says about packages: info, its JSON, the findings of check, wrong command lines.
#include <nlohmann/json.hpp>

#include "QvftoolFixture.h"

namespace qvtest {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class InfoTest : public QvftoolFixture {};

TEST_F(InfoTest, ShowsHeaderTableClearSectionsAndUnknownBytes) {
    Package()
        .Firmware(2, 5)
        .ProductCode(0xBEEF)
        .Hardware('C')
        .Compatibility(3)
        .Section("Factory.Main", 0x200000, 100)
        .Section("Upgrade.CLR", 0x300000, 5)
        .Write("p.qvf");
    const QvftoolRun run = Run({"info", "p.qvf"});
    EXPECT_EQ(0, run.status);
    std::string reserved20;
    for (int i = 0; i < 136; ++i) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", 0x10 + i);
        reserved20 += digits;
    }
    EXPECT_EQ(
        "p.qvf\n"
        "  firmware        2.5\n"
        "  product code    0xbeef\n"
        "  hardware        C\n"
        "  compatibility   3\n"
        "  header          213 bytes\n"
        "  data            105 bytes\n"
        "  reserved4       a0a1a2a3\n"
        "  reserved15      b0\n"
        "  reserved20      " +
            reserved20 +
            "\n"
            "   #  name              address          bytes  image    reserved24\n"
            "   1  Factory.Main      0x00200000         100  main     c0c1c2c3\n"
            "   2  Upgrade.CLR       0x00300000           5  upgrade  c0c1c2c3  clear\n",
        run.output);
}

TEST_F(InfoTest, ShowsOverlapsAndBytesBehindTheData) {
    Bytes file = Package().Section("A", 0x1000, 100).Section("B", 0x1063, 10).File();
    file.push_back(0);
    PackageBuilder::WriteBytes("p.qvf", file);
    const std::string text = Run({"info", "p.qvf"}).output;
    EXPECT_THAT(text, HasSubstr("  overlap: section 1 (A) and section 2 (B) overlap from "
                                "0x00001063 to 0x00001063\n"));
    EXPECT_THAT(text, HasSubstr("  behind the data 1 bytes\n"));
}

TEST_F(InfoTest, NamesThatATerminalShouldNotSeeAreShownAsDigits) {
    Package().Hardware('\x1B').Section("\x1B[2J", 0, 1).Write("p.qvf");
    const std::string text = Run({"info", "p.qvf"}).output;
    EXPECT_THAT(text, Not(HasSubstr("\x1B")));
    EXPECT_THAT(text, HasSubstr("hex:1b5b324a000000000000000000000000"));
    EXPECT_THAT(text, HasSubstr("hardware        0x1b\n"));
}

TEST_F(InfoTest, TheJsonHoldsTheSame) {
    Package()
        .Firmware(2, 5)
        .Section("Factory.CLR.X", 0x1000, 100)
        .Section("B", 0x1063, 10)
        .Write("p.qvf");
    const QvftoolRun run = Run({"info", "p.qvf", "--json"});
    EXPECT_EQ(0, run.status);
    const nlohmann::json json = nlohmann::json::parse(run.output);
    EXPECT_EQ("p.qvf", json["file"]);
    EXPECT_EQ("2.5", json["firmware"]);
    EXPECT_EQ(0x20005, json["firmware_version"]);
    EXPECT_EQ(0x0101, json["product_code"]);
    EXPECT_EQ('A', json["hardware"]);
    EXPECT_EQ(1, json["compatibility"]);
    EXPECT_EQ(213, json["header_length"]);
    EXPECT_EQ(110, json["data_size"]);
    EXPECT_EQ("a0a1a2a3", json["reserved4"]);
    ASSERT_EQ(2u, json["sections"].size());
    EXPECT_EQ("Factory.CLR.X", json["sections"][0]["name"]);
    EXPECT_EQ(0x1000, json["sections"][0]["address"]);
    EXPECT_EQ(100, json["sections"][0]["size"]);
    EXPECT_EQ(true, json["sections"][0]["clear"]);
    EXPECT_EQ("main", json["sections"][0]["image"]);
    EXPECT_EQ(false, json["sections"][1]["clear"]);
    EXPECT_EQ(1u, json["overlaps"].size());
}

TEST_F(InfoTest, SaysWhatIsWrongWithAFile) {
    const Bytes good = Package().Section("A", 0, 10).File();
    const auto changed = [&](size_t at, uint8_t value) {
        Bytes bytes = good;
        bytes[at] = value;
        return bytes;
    };
    const struct {
        Bytes bytes;
        const char* message;
    } kRows[] = {
        {Bytes(good.begin(), good.begin() + 156), "ends after 156 bytes"},
        {Bytes(good.begin(), good.begin() + 184), "ends inside the section table"},
        {Bytes(good.begin(), good.end() - 1), "section 1 has 10 bytes, but only 9 are left"},
        {changed(0, 'q'), "does not begin with QVFH"},
        {changed(10, 186), "offset 10: header length 186, but 1 sections make 185"},
        {changed(156, 17), "offset 156: 17 sections, at most 16"},
        {changed(180, 0x80), "section 1 has 2147483658 bytes, but only 10 are left"},
    };
    for (const auto& row : kRows) {
        PackageBuilder::WriteBytes("x.qvf", row.bytes);
        const QvftoolRun run = Run({"info", "x.qvf"});
        EXPECT_EQ(2, run.status) << row.message;
        EXPECT_EQ("", run.output);
        EXPECT_THAT(run.errors, StartsWith(std::string("qvftool: x.qvf: ") + row.message));
    }
    EXPECT_THAT(Run({"info", "none.qvf"}).errors, HasSubstr("none.qvf: cannot be opened: No such"));
    EXPECT_THAT(Run({"info", "."}).errors, HasSubstr("is not a regular file"));
}

class CheckTest : public QvftoolFixture {
  protected:
    void ExpectFinding(const std::string& finding) {
        const QvftoolRun run = Run({"check", "."});
        EXPECT_EQ(1, run.status);
        EXPECT_EQ(finding + "\n", run.output);
        EXPECT_EQ("", run.errors);
    }
};

TEST_F(CheckTest, AFolderOfGoodPackagesIsClean) {
    Package().Section("A", 0x1000, 4096).Section("Upgrade.B", 0x2000, 1).Write("a.qvf");
    Package().Hardware('B').Write("b.qvf");
    Package().ProductCode(2).Write("c.qvf.old");
    Put("readme.txt", "no package");
    std::filesystem::create_directory("folder.qvf");
    const QvftoolRun run = Run({"check", "."});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("", run.output);
}

TEST_F(CheckTest, AnUnreadablePackageIsAFinding) {
    Put("broken.qvf", "QVFH");
    ExpectFinding(
        "broken.qvf: ends after 4 bytes, the header alone has 157: not a firmware "
        "package, or cut short");
}

TEST_F(CheckTest, TwoPackagesForTheSameCardsAreAFinding) {
    Package().Firmware(1, 1).Write("a.qvf");
    Package().Firmware(1, 2).Write("b.qvf");
    ExpectFinding(
        "b.qvf: for product 0x0101, hardware A as a.qvf is; which one is taken depends on "
        "the directory's order");
}

TEST_F(CheckTest, CompatibilityCodeZeroIsAFinding) {
    Package().Compatibility(0).Write("a.qvf");
    ExpectFinding(
        "a.qvf: compatibility code 0: cards whose stored header is not of the running "
        "firmware would be upgraded in safe mode");
}

TEST_F(CheckTest, OverlappingSectionsAreAFinding) {
    Package().Section("A", 0x1000, 4097).Section("B", 0x2000, 10).Write("a.qvf");
    ExpectFinding("a.qvf: section 1 (A) and section 2 (B) overlap from 0x00002000 to 0x00002000");
}

TEST_F(CheckTest, SectionsThatTouchDoNotOverlap) {
    Package()
        .Section("A", 0x1000, 4096)
        .Section("B", 0x2000, 0)
        .Section("C", 0x2000, 1)
        .Write("a.qvf");
    EXPECT_EQ(0, Run({"check", "."}).status);
}

TEST_F(CheckTest, AMisalignedSectionIsAFinding) {
    Package().Section("A", 0x1001, 1).Write("a.qvf");
    ExpectFinding(
        "a.qvf: section 1 (A) begins at 0x00001001, inside a 4 KiB erase sector that is "
        "erased as a whole");
}

TEST_F(CheckTest, ASectionBehindTheLastAddressIsAFinding) {
    Package().Section("A", 0xFFFFF000, 4097).Write("a.qvf");
    ExpectFinding("a.qvf: section 1 (A) ends behind flash address 0xffffffff");
    Package().Section("A", 0xFFFFF000, 4096).Write("a.qvf");
    EXPECT_EQ(0, Run({"check", "."}).status);
}

TEST_F(CheckTest, ThirtyThreePackagesAreAFinding) {
    for (uint16_t i = 0; i < 32; ++i)
        Package().ProductCode(i).Write("p" + std::to_string(i) + ".qvf");
    EXPECT_EQ(0, Run({"check", "."}).status);
    Package().ProductCode(99).Write("last.qvf");
    ExpectFinding("33 packages: only the first 32 in the directory's order are looked at");
}

TEST_F(CheckTest, AFolderThatCannotBeReadIsAnError) {
    const QvftoolRun run = Run({"check", "nowhere"});
    EXPECT_EQ(2, run.status);
    EXPECT_THAT(run.errors, StartsWith("qvftool: nowhere: cannot be read: "));
}

class QvftoolCommandLineTest : public QvftoolFixture {};

TEST_F(QvftoolCommandLineTest, WrongArgumentsEndWithStatusTwo) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"bogus"},
                                               {"create"},
                                               {"create", "d.toml"},
                                               {"info"},
                                               {"check"},
                                               {"extract", "x.qvf"},
                                               {"info", "--nothing", "x"},
                                               {"info", "a", "b"}}) {
        const QvftoolRun run = Run(arguments);
        EXPECT_EQ(2, run.status);
        EXPECT_NE("", run.errors);
        EXPECT_EQ("", run.output);
    }
}

TEST_F(QvftoolCommandLineTest, HelpEndsWithStatusZero) {
    const QvftoolRun run = Run({"--help"});
    EXPECT_EQ(0, run.status);
    for (const char* command : {"create", "info", "check", "extract"})
        EXPECT_THAT(run.output, HasSubstr(command));
}

}  // namespace
}  // namespace qvtest
