// What qvftool shows of packages: info, its JSON, differences; wrong command lines.
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "QvftoolFixture.h"

namespace qvtest {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string kDigestOfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string kDigestOfNothing =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class InfoTest : public QvftoolFixture {
  protected:
    // As the system's own program has it for the file itself.
    static std::string DigestOf(const std::string& path) {
        EXPECT_EQ(0, std::system(("sha256sum " + path + " >digest.txt").c_str()));
        return Text("digest.txt").substr(0, 64);
    }
    static Bytes WithoutReservedBytes(Bytes file) {
        std::fill(file.begin() + 4, file.begin() + 8, uint8_t{0});
        file[15] = 0;
        std::fill(file.begin() + 20, file.begin() + 156, uint8_t{0});
        for (size_t i = 0; i < file[156]; ++i)
            std::fill_n(file.begin() + 157 + 28 * static_cast<long>(i) + 24, 4, uint8_t{0});
        return file;
    }
};

TEST_F(InfoTest, ShowsHeaderTableClearSectionsAndUnknownBytes) {
    Package()
        .Firmware(2, 5)
        .ProductCode(0xBEEF)
        .Hardware('C')
        .Compatibility(3)
        .Section("Factory.Main", 0x200000, Bytes{'a', 'b', 'c'})
        .Section("Upgrade.CLR", 0x300000, Bytes{})
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
        "  data            3 bytes\n"
        "  sha256          " +
            DigestOf("p.qvf") +
            "\n"
            "  reserved4       a0a1a2a3\n"
            "  reserved15      b0\n"
            "  reserved20      " +
            reserved20 +
            "\n"
            "   #  name              address          bytes  image    reserved24\n"
            "   1  Factory.Main      0x00200000           3  main     c0c1c2c3\n"
            "      sha256 " +
            kDigestOfAbc +
            "\n"
            "   2  Upgrade.CLR       0x00300000           0  upgrade  c0c1c2c3  clear\n"
            "      sha256 " +
            kDigestOfNothing + "\n",
        run.output);
}

TEST_F(InfoTest, ReservedFieldsThatAreZeroAreShownOnDemand) {
    PackageBuilder::WriteBytes(
        "p.qvf", WithoutReservedBytes(Package().Section("A", 0x1000, Bytes{'a', 'b', 'c'}).File()));
    EXPECT_EQ(
        "p.qvf\n"
        "  firmware        1.1\n"
        "  product code    0x0101\n"
        "  hardware        A\n"
        "  compatibility   1\n"
        "  header          185 bytes\n"
        "  data            3 bytes\n"
        "  sha256          " +
            DigestOf("p.qvf") +
            "\n"
            "   #  name              address          bytes  image\n"
            "   1  A                 0x00001000           3  main\n"
            "      sha256 " +
            kDigestOfAbc + "\n",
        Run({"info", "p.qvf"}).output);
    EXPECT_THAT(
        Run({"info", "--all", "p.qvf"}).output,
        AllOf(HasSubstr("  reserved4       00000000\n"), HasSubstr("  reserved15      00\n"),
              HasSubstr("  reserved20      " + std::string(272, '0') + "\n"),
              HasSubstr("  main     00000000\n")));
}

TEST_F(InfoTest, ShowsSeveralPackages) {
    Package().Firmware(1, 1).Write("a.qvf");
    Package().Firmware(1, 2).Write("b.qvf");
    const QvftoolRun run = Run({"info", "a.qvf", "b.qvf"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(Run({"info", "a.qvf"}).output + "\n" + Run({"info", "b.qvf"}).output, run.output);
    const nlohmann::json json =
        nlohmann::json::parse(Run({"info", "--json", "a.qvf", "b.qvf"}).output);
    ASSERT_EQ(2u, json.size());
    EXPECT_EQ("1.1", json[0]["firmware"]);
    EXPECT_EQ("b.qvf", json[1]["file"]);
    EXPECT_EQ(2, Run({"info", "a.qvf", "none.qvf"}).status);
    EXPECT_EQ("", Run({"info", "a.qvf", "none.qvf"}).output);
}

TEST_F(InfoTest, WhatIsNoRegularFileIsNotWaitedFor) {
    ASSERT_EQ(0, mkfifo("f.qvf", 0600));
    for (const char* command : {"info", "check"}) {
        const QvftoolRun run = Run({command, "f.qvf"});
        EXPECT_EQ(2, run.status);
        EXPECT_THAT(run.errors, StartsWith("qvftool: f.qvf: "));
    }
    EXPECT_EQ("qvftool: f.qvf: is not a regular file\n", Run({"info", "f.qvf"}).errors);
}

TEST_F(InfoTest, NamesOfFilesThatATerminalShouldNotSeeAreEscaped) {
    Package().Write("\x1B[2J\xC3\xA4.qvf");
    EXPECT_THAT(Run({"info", "\x1B[2J\xC3\xA4.qvf"}).output, StartsWith("\\x1b[2J\xC3\xA4.qvf\n"));
    EXPECT_THAT(Run({"info", "\x1B[2J\xFF"}).errors, StartsWith("qvftool: \\x1b[2J\\xff: "));
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
    EXPECT_EQ("qvftool-info", json["schema"]);
    EXPECT_EQ(1, json["version"]);
    EXPECT_EQ("p.qvf", json["file"]);
    EXPECT_EQ(DigestOf("p.qvf"), json["sha256"]);
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
    EXPECT_EQ(64u, json["sections"][0]["sha256"].get<std::string>().size());
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

class DiffTest : public QvftoolFixture {
  protected:
    static std::string Diff(const PackageBuilder& a, const PackageBuilder& b) {
        a.Write("a.qvf");
        b.Write("b.qvf");
        const QvftoolRun run = Run({"diff", "a.qvf", "b.qvf"});
        EXPECT_EQ("", run.errors);
        EXPECT_EQ(run.output.empty() ? 0 : 1, run.status);
        return run.output;
    }
};

TEST_F(DiffTest, TheSamePackagesDifferInNothing) {
    const PackageBuilder package = Package().Section("A", 0, 10).Section("A", 4096, 20);
    EXPECT_EQ("", Diff(package, package));
}

TEST_F(DiffTest, EveryFieldThatDiffersIsNamed) {
    EXPECT_EQ(
        "firmware: 1.1 -> 2.0\nproduct code: 0x0101 -> 0xbeef\nhardware: A -> B\n"
        "compatibility: 1 -> 7\n",
        Diff(Package(),
             Package().Firmware(2, 0).ProductCode(0xBEEF).Hardware('B').Compatibility(7)));
}

TEST_F(DiffTest, SectionsAreComparedByName) {
    EXPECT_EQ(
        "section A address: 0x00000000 -> 0x00001000\n"
        "section A data: 3 -> 4 bytes, 2 of them different, the first at 0x00000001\n"
        "section B: only in the first\nsection C: only in the second\n",
        Diff(Package().Section("A", 0, Bytes{1, 2, 3}).Section("B", 0, 1),
             Package().Section("C", 0, 1).Section("A", 0x1000, Bytes{1, 9, 3, 4})));
    EXPECT_EQ("sections: the same ones in another order\n",
              Diff(Package().Section("A", 0, Bytes{1}).Section("B", 0, Bytes{2}),
                   Package().Section("B", 0, Bytes{2}).Section("A", 0, Bytes{1})));
    EXPECT_THAT(Diff(Package().Section("\x1B[2J", 0, 1), Package()),
                HasSubstr("section 1b5b324a000000000000000000000000: only in the first\n"));
}

// Every single byte of a file matters.
TEST_F(DiffTest, NoByteDiffersUnseen) {
    const PackageBuilder package = Package().Section("A", 0x1000, 3);
    Bytes file = package.File();
    file.push_back(7);  // behind the data
    PackageBuilder::WriteBytes("a.qvf", file);
    for (size_t at = 4; at < file.size(); ++at) {
        const bool isLayout = at == 10 || at == 11 || at == 156 || (at >= 177 && at < 181);
        if (isLayout) continue;
        Bytes changed = file;
        changed[at] = static_cast<uint8_t>(changed[at] ^ 1);
        PackageBuilder::WriteBytes("b.qvf", changed);
        EXPECT_EQ(1, Run({"diff", "a.qvf", "b.qvf"}).status) << at;
    }
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
                                               {"diff", "a"},
                                               {"sign", "a"},
                                               {"sign", "--key", "k"},
                                               {"check", "--flash-size", "many", "."},
                                               {"check", "--firmware-area", "0x100000000", "."}}) {
        const QvftoolRun run = Run(arguments);
        EXPECT_EQ(2, run.status);
        EXPECT_NE("", run.errors);
        EXPECT_EQ("", run.output);
    }
}

TEST_F(QvftoolCommandLineTest, HelpEndsWithStatusZero) {
    const QvftoolRun run = Run({"--help"});
    EXPECT_EQ(0, run.status);
    for (const char* command : {"create", "info", "check", "diff", "sign", "extract"})
        EXPECT_THAT(run.output, HasSubstr(command));
}

TEST_F(QvftoolCommandLineTest, TheVersionIsThatOfTheProject) {
    const QvftoolRun run = Run({"--version"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("qvftool " QV_VERSION "\n", run.output);
}

}  // namespace
}  // namespace qvtest
