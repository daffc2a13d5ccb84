// The rules of check, each by the package that it is about; what they keep a card from is in
// HarmE2eTest.cpp.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "QvftoolFixture.h"
#include "Rules.h"

namespace qvtest {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// A package that is well.
PackageBuilder Good() { return Package().Section("Factory.Main", 0x200000, 5000); }
PackageBuilder GoodSafe() {
    return Good().Compatibility(7).Section("Upgrade.Main", 0x300000, 5000);
}

class CheckTest : public QvftoolFixture {
  protected:
    static std::string Found(const std::vector<std::string>& options = {}) {
        std::vector<std::string> arguments = {"check", "."};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const QvftoolRun run = Run(arguments);
        EXPECT_EQ(run.output.empty() ? 0 : 1, run.status);
        EXPECT_EQ("", run.errors);
        return run.output;
    }
    static std::string FoundIn(const PackageBuilder& package,
                               const std::vector<std::string>& options = {}) {
        package.Write("a.qvf");
        return Found(options);
    }
    static std::string FoundIn(const Bytes& file) {
        PackageBuilder::WriteBytes("a.qvf", file);
        return Found();
    }
};

TEST_F(CheckTest, AFolderOfGoodPackagesIsClean) {
    GoodSafe().Write("a.qvf");
    Good().Hardware('B').Write("b.qvf");
    Good().ProductCode(2).Write("c.qvf.old");
    Put("readme.txt", "no package");
    std::filesystem::create_directory("folder.qvf");
    EXPECT_EQ("", Found());
}

TEST_F(CheckTest, AnUnreadablePackage) {
    Put("broken.qvf", "QVFH");
    EXPECT_EQ(
        "broken.qvf: error: ends after 4 bytes, the header alone has 157: not a firmware package, "
        "or "
        "cut short [unreadable]\n",
        Found());
}

TEST_F(CheckTest, ACodeThatAllowsASafeUpgradeWithoutAnythingToWrite) {
    const std::string finding =
        "a.qvf: error: compatibility code 7 allows a safe upgrade, but no section named 'Upgrade.' "
        "has data for it: only a header would be written, and reported as success "
        "[no-upgrade-section]\n";
    EXPECT_EQ(finding, FoundIn(Good().Compatibility(7)));
    EXPECT_EQ(finding, FoundIn(Good().Compatibility(7).Section("Upgrade.CLR", 0x300000, 10)));
    EXPECT_EQ(finding, FoundIn(Good().Compatibility(7).Section("Upgrade.Main", 0x300000, 0)));
}

TEST_F(CheckTest, APackageWithoutAMainImage) {
    const std::string end =
        ": no section of the main image has data: a normal upgrade would write only a header, and "
        "report success ";
    EXPECT_EQ("a.qvf: error" + end + "[no-main-section]\n", FoundIn(Package()));
    EXPECT_EQ("a.qvf: error" + end + "[no-main-section]\n",
              FoundIn(Package().Section("Factory.CLR.Log", 0x1000, 10)));
    EXPECT_EQ("a.qvf: warning" + end + "[upgrade-only]\n",
              FoundIn(Package().Compatibility(7).Section("Upgrade.Main", 0x1000, 10)));
}

TEST_F(CheckTest, CompatibilityCodeZero) {
    EXPECT_EQ(
        "a.qvf: warning: compatibility code 0: cards whose stored header is not of the running "
        "firmware would be upgraded in safe mode [compatibility-zero]\n",
        FoundIn(GoodSafe().Compatibility(0)));
}

TEST_F(CheckTest, OverlappingSections) {
    EXPECT_EQ(
        "a.qvf: error: section 1 (A) and section 2 (B) overlap from 0x00002000 to 0x00002000 "
        "[overlap]\n",
        FoundIn(Package().Section("A", 0x1000, 4097).Section("B", 0x2000, 10)));
}

TEST_F(CheckTest, SectionsThatTouchDoNotOverlap) {
    EXPECT_EQ(
        "",
        FoundIn(
            Package().Section("A", 0x1000, 4096).Section("B", 0x2000, 0).Section("C", 0x2000, 1)));
}

TEST_F(CheckTest, AMisalignedSection) {
    EXPECT_EQ(
        "a.qvf: warning: section 1 (A) begins at 0x00001001, inside a 4 KiB erase sector that is "
        "erased as a whole [misaligned]\n",
        FoundIn(Package().Section("A", 0x1001, 1)));
}

TEST_F(CheckTest, ASectionBehindTheLastAddress) {
    EXPECT_EQ("a.qvf: error: section 1 (A) ends beyond flash address 0xffffffff [beyond-flash]\n",
              FoundIn(Package().Section("A", 0xFFFFF000, 4097)));
    EXPECT_EQ("", FoundIn(Package().Section("A", 0xFFFFF000, 4096)));
}

TEST_F(CheckTest, ASectionBehindTheFlash) {
    EXPECT_EQ("", FoundIn(Good(), {"--flash-size", "0x201388"}));
    EXPECT_EQ(
        "a.qvf: error: section 1 (Factory.Main) ends beyond flash address 0x00201386 "
        "[beyond-flash]\n",
        FoundIn(Good(), {"--flash-size", "0x201387"}));
    EXPECT_EQ("", FoundIn(Good(), {"--flash-size", "4294967296"}));
    EXPECT_EQ("a.qvf: error: the headers end beyond flash address 0x003fffff [beyond-flash]\n",
              FoundIn(Good(), {"--flash-size", "0x400000", "--firmware-area", "0x3ff000"}));
}

// Two sectors with a header each; a section of two sectors before, in and behind them.
TEST_F(CheckTest, ASectionOverAHeader) {
    const auto finding = [](const std::string& header) {
        return "a.qvf: error: section 1 (Factory.Main) is in an erase sector of the header at " +
               header + " [over-header]\n";
    };
    const struct {
        const char* area;
        std::string found;
    } kRows[] = {
        {"0x1fe000", ""},
        {"0x1ff000", finding("0x00200000")},
        {"0x200000", finding("0x00200000")},
        {"0x201000", finding("0x00201000")},
        {"0x202000", ""},
    };
    for (const auto& row : kRows)
        EXPECT_EQ(row.found, FoundIn(Good(), {"--firmware-area", row.area})) << row.area;
}

TEST_F(CheckTest, APackageForCardsThatDoNotAnswer) {
    EXPECT_EQ(
        "a.qvf: error: product code 0 and hardware 0: it is taken for every card that does not "
        "answer "
        "when it is asked what it is [fits-unknown-card]\n",
        FoundIn(Good().ProductCode(0).Hardware('\0')));
    EXPECT_EQ("", FoundIn(Good().ProductCode(0)));
}

TEST_F(CheckTest, MoreBytesThanThePercentageCanCount) {
    const auto sized = [](uint32_t total) {
        return Package().Section("A", 0x200000, Bytes(total - 157 - 28));
    };
    EXPECT_EQ("", FoundIn(sized(42949672)));
    EXPECT_EQ(
        "a.qvf: warning: 42949673 bytes for one upgrade: above 42949672 the percentage that is "
        "shown "
        "starts again at 0 [percentage-wraps]\n",
        FoundIn(sized(42949673)));
}

TEST_F(CheckTest, NamesThatNearlyMeanSomething) {
    const struct {
        const char* name;
        const char* found;
    } kRows[] = {
        {"upgrade.Main", " belongs to the main image"},
        {"Upgrade", " belongs to the main image"},
        {"UPGRADE.CLR", " belongs to the main image"},
        {" Upgrade.Main", " belongs to the main image"},
        {"Factory.CLR", " is written, not cleared"},
        {"factory.clr.Log", " is written, not cleared"},
        {"Upgrade.Clr", " is written, not cleared"},
        {"Factory.CLR.Log", nullptr},
        {"Upgrade.CLR", nullptr},
        {"Settings", nullptr},
    };
    for (const auto& row : kRows) {
        const std::string text = FoundIn(GoodSafe().Section(row.name, 0x400000, 10));
        if (row.found == nullptr) {
            EXPECT_EQ("", text) << row.name;
            continue;
        }
        EXPECT_THAT(text, StartsWith("a.qvf: warning: section 3 (" + std::string(row.name) + ")" +
                                     row.found));
        EXPECT_THAT(text, HasSubstr(" [name-near-miss]\n"));
    }
}

TEST_F(CheckTest, TwoSectionsOfOneName) {
    EXPECT_EQ(
        "a.qvf: warning: section 2 (Factory.Main) has the name of section 1 [duplicate-name]\n",
        FoundIn(Good().Section("Factory.Main", 0x400000, 10)));
}

TEST_F(CheckTest, BytesBehindTheLastSection) {
    Bytes file = Good().File();
    file.insert(file.end(), {1, 2});
    EXPECT_EQ(
        "a.qvf: warning: 2 bytes after the last section, which no card ever gets "
        "[trailing-bytes]\n",
        FoundIn(file));
}

TEST_F(CheckTest, AFolderWithoutPackages) {
    EXPECT_EQ("error: .: there is no package in it [no-packages]\n", Found());
}

TEST_F(CheckTest, TwoPackagesForTheSameCardsAndWhichIsTakenToday) {
    Good().Firmware(1, 1).Write("a.qvf");
    Good().Firmware(1, 2).Write("b.qvf");
    std::vector<std::string> order;
    for (const std::string& name : Here())
        if (name.ends_with(".qvf")) order.push_back(name);
    EXPECT_EQ(order[1] + ": warning: for product 0x0101, hardware A as " + order[0] +
                  " is; in today's order of the directory " + order[0] + " is taken [same-cards]\n",
              Found());
    // By themselves they have no order.
    EXPECT_EQ(
        "b.qvf: warning: for product 0x0101, hardware A as a.qvf is; the order of their directory "
        "decides which one is taken [same-cards]\n",
        Run({"check", "a.qvf", "b.qvf"}).output);
}

TEST_F(CheckTest, ThirtyThreePackages) {
    for (uint16_t i = 0; i < 32; ++i) Good().ProductCode(i).Write("p" + std::to_string(i) + ".qvf");
    EXPECT_EQ("", Found());
    Good().ProductCode(99).Write("last.qvf");
    std::vector<std::string> order = Here();
    EXPECT_EQ("error: 33 packages: only the first 32 in the directory's order are looked at, not " +
                  order.back() + " [too-many-packages]\n",
              Found());
}

TEST_F(CheckTest, FilesAndFoldersAreJudgedEachByItself) {
    Good().Write("a.qvf");
    std::filesystem::create_directory("more");
    Good().Write("more/b.qvf");
    EXPECT_EQ(0, Run({"check", "a.qvf", "more"}).status);
    Package().Write("a.qvf");
    EXPECT_THAT(Run({"check", "a.qvf", "more"}).output, StartsWith("a.qvf: error: "));
    EXPECT_THAT(Run({"check", "./a.qvf"}).output, StartsWith("./a.qvf: error: "));
}

TEST_F(CheckTest, NamesAreEscaped) {
    Put("\x1B[2J\n.qvf", "");
    EXPECT_THAT(Found(), StartsWith("\\x1b[2J\\x0a.qvf: error: ends after 0 bytes"));
}

TEST_F(CheckTest, WhatCannotBeReadIsAnError) {
    const QvftoolRun run = Run({"check", "nowhere"});
    EXPECT_EQ(2, run.status);
    EXPECT_EQ("", run.output);
    EXPECT_THAT(run.errors, StartsWith("qvftool: nowhere: cannot be read: No such file"));
}

TEST_F(CheckTest, TheJsonHoldsEveryFinding) {
    Package().Write("a.qvf");
    Put("b.qvf", "");
    const QvftoolRun run = Run({"check", ".", "--json"});
    EXPECT_EQ(1, run.status);
    const nlohmann::json json = nlohmann::json::parse(run.output);
    EXPECT_EQ("qvftool-check", json["schema"]);
    EXPECT_EQ(1, json["version"]);
    EXPECT_EQ(2, json["packages"]);
    ASSERT_EQ(2u, json["findings"].size());
    EXPECT_EQ("a.qvf", json["findings"][0]["file"]);
    EXPECT_EQ("no-main-section", json["findings"][0]["rule"]);
    EXPECT_EQ("error", json["findings"][0]["level"]);
    EXPECT_THAT(json["findings"][0]["message"].get<std::string>(), StartsWith("no section of"));
    EXPECT_EQ("unreadable", json["findings"][1]["rule"]);
}

TEST_F(CheckTest, TheJsonOfACleanFolderHasNoFindingAndThatOfAnEmptyOneNoFile) {
    const nlohmann::json empty = nlohmann::json::parse(Run({"check", ".", "--json"}).output);
    ASSERT_EQ(1u, empty["findings"].size());
    EXPECT_TRUE(empty["findings"][0]["file"].is_null());
    Good().Write("a.qvf");
    const QvftoolRun run = Run({"check", "--json", "."});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(nlohmann::json::parse(run.output)["findings"], IsEmpty());
}

// What the first cells of the tables of a chapter of the page name, and the second cells.
std::string Described(const std::string& chapter, bool second) {
    std::string rows;
    std::string current;
    std::ifstream page(QV_FORMATS_PAGE);
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## ")) current = line.substr(3);
        if (current != chapter || !line.starts_with("| `")) continue;
        const size_t first = line.find('|', 1);
        rows += line.substr(0, second ? line.find('|', first + 1) + 1 : first + 1) + "\n";
    }
    return rows;
}

// The page lists the rules as the program has them, in its order.
TEST_F(CheckTest, EveryRuleIsDescribed) {
    std::string expected;
    for (const qvf::Rule& rule : qvf::kAllRules)
        expected += "| `" + std::string(rule.name) + "` | " + qvf::LevelText(rule.level) + " |\n";
    EXPECT_EQ(expected, Described("Rules", true));
}

TEST_F(CheckTest, EveryKeyOfTheJsonIsDescribed) {
    Good().Write("a.qvf");
    for (const char* command : {"check", "info"}) {
        const std::string described = Described(std::string("JSON of ") + command, false);
        const nlohmann::json json = nlohmann::json::parse(Run({command, "--json", "a.qvf"}).output);
        size_t keys = 0;
        for (const auto& [key, value] : json.items()) {
            EXPECT_THAT(described, HasSubstr("`" + key + "`"));
            ++keys;
        }
        EXPECT_EQ(2 * keys,
                  static_cast<size_t>(std::count(described.begin(), described.end(), '`')))
            << described;
    }
}

}  // namespace
}  // namespace qvtest
