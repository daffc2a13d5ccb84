// Packages made from descriptions, and taken apart so that they can be made again.
#include "QvftoolFixture.h"

namespace qvtest {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr char kPlain[] =
    "product_code = 0x0101\nhardware = \"A\"\nfirmware = \"1.2\"\ncompatibility = 7\n";

class CreateTest : public QvftoolFixture {
  protected:
    QvftoolRun Create(const std::string& description) {
        Put("d.toml", description);
        return Run({"create", "d.toml", "-o", "out.qvf"});
    }
    // Of the one section in what was made.
    static Bytes SectionData() {
        const Bytes file = Content("out.qvf");
        return Bytes(file.begin() + 157 + 28, file.end());
    }
    // The message of a creation that must fail and leave nothing.
    std::string Refused(const std::string& description) {
        const QvftoolRun run = Create(description);
        EXPECT_EQ(2, run.status) << description;
        EXPECT_EQ("", run.output);
        EXPECT_FALSE(std::filesystem::exists("out.qvf"));
        for (const std::string& name : Here())
            EXPECT_FALSE(name.starts_with("out.qvf")) << "left behind: " << name;
        return run.errors;
    }
};

TEST_F(CreateTest, APackageIsWrittenByteByByte) {
    const Bytes main = Payload(5000, 1);
    const Bytes log = Payload(10, 2);
    PackageBuilder::WriteBytes("main.bin", main);
    std::filesystem::create_directory("sub");
    PackageBuilder::WriteBytes("sub/log.bin", log);
    const QvftoolRun run =
        Create(std::string(kPlain) +
               "[[section]]\nname = \"Factory.Main\"\naddress = 0x200000\nfile = \"main.bin\"\n"
               "reserved24 = \"C0C1C2C3\"\n"
               "[[section]]\nname = \"Factory.CLR.Log\"\naddress = 4096\nfile = \"sub/log.bin\"\n"
               "reserved24 = \"c0c1c2c3\"\n");
    ASSERT_EQ(0, run.status) << run.errors;
    Bytes expected = Package()
                         .Firmware(1, 2)
                         .Compatibility(7)
                         .Section("Factory.Main", 0x200000, main)
                         .Section("Factory.CLR.Log", 4096, log)
                         .File();
    // Bytes that the description does not name are zero.
    std::fill(expected.begin() + 4, expected.begin() + 8, uint8_t{0});
    expected[15] = 0;
    std::fill(expected.begin() + 20, expected.begin() + 156, uint8_t{0});
    EXPECT_EQ(expected, Content("out.qvf"));
    EXPECT_THAT(Here(), UnorderedElementsAre("main.bin", "sub", "d.toml", "out.qvf"));
}

TEST_F(CreateTest, UnknownHeaderBytesCanBeGiven) {
    std::string reserved20;
    for (int i = 0; i < 136; ++i) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", 0x10 + i);
        reserved20 += digits;
    }
    const QvftoolRun run = Create(
        "product_code = 0x0101\nhardware = 65\nfirmware = \"1.1\"\ncompatibility = 1\n"
        "reserved4 = \"a0a1a2a3\"\nreserved15 = \"b0\"\nreserved20 = \"" +
        reserved20 + "\"\n");
    ASSERT_EQ(0, run.status) << run.errors;
    EXPECT_EQ(Package().File(), Content("out.qvf"));
}

TEST_F(CreateTest, AnOlderPackageIsReplacedAsAWhole) {
    Put("out.qvf", "old");
    ASSERT_EQ(0, Create(kPlain).status);
    EXPECT_EQ(157u, Content("out.qvf").size());
}

TEST_F(CreateTest, AFailureLeavesTheOlderPackageAlone) {
    Put("out.qvf", "old");
    EXPECT_EQ(2, Create("nonsense").status);
    EXPECT_EQ("old", Text("out.qvf"));
}

TEST_F(CreateTest, TextsThatTheParserIsNotMadeForAreRefused) {
    Put("p.toml", "[[[");
    EXPECT_EQ("qvftool: p.toml: this is not TOML\n",
              Run({"create", "p.toml", "--output", "p.qvf"}).errors);
    Put("p.toml", "# a\n\xE2\x80\xB0");
    EXPECT_EQ("qvftool: p.toml:2: only ASCII characters are allowed outside of comments\n",
              Run({"create", "p.toml", "--output", "p.qvf"}).errors);
    EXPECT_THAT(Here(), testing::ElementsAre("p.toml"));
}

TEST_F(CreateTest, EveryMistakeNamesFileAndLine) {
    Put("f.bin", "x");
    const std::string section = "[[section]]\n";  // line 5
    const std::string clear = section + "name = \"Factory.CLR.L\"\naddress = 0\n";
    const struct {
        std::string text;
        const char* message;
    } kRows[] = {
        {"", "d.toml:1: product_code is missing"},
        {"a = [\n", "d.toml:"},
        {"product_code = 0x10000\n", "d.toml:1: product_code is a whole number from 0 to 65535"},
        {"product_code = -1\n", "d.toml:1: product_code is a whole number from 0 to 65535"},
        {"product_code = \"1\"\n", "d.toml:1: product_code is a whole number"},
        {"\nproduct_code = 1\n\nhardware = \"AB\"\n", "d.toml:4: hardware is one character"},
        {"product_code = 1\nhardware = 256\n",
         "d.toml:2: hardware is a whole number from 0 to 255"},
        {"product_code = 1\nhardware = \"\"\n", "d.toml:2: hardware is"},
        {"product_code = 1\nhardware = true\n", "d.toml:2: hardware is"},
        {std::string(kPlain) + "color = 3\n",
         "d.toml:5: unknown key 'color'; known are: product_code, hardware, "
         "firmware, compatibility, reserved4, reserved15, reserved20, "
         "trailing, section"},
        // Not that the right one is missing.
        {"product_cod = 1\n", "d.toml:1: unknown key 'product_cod'; misspelt for 'product_code'?"},
        {std::string(kPlain) + "reserved4 = \"00\"\n", "d.toml:5: reserved4 is 8 hexadecimal"},
        {std::string(kPlain) + "reserved15 = \"0g\"\n", "d.toml:5: reserved15 is 2 hexadecimal"},
        {std::string(kPlain) + "reserved20 = 5\n", "d.toml:5: reserved20 is a text"},
        {std::string(kPlain) + "trailing = \"no.bin\"\n", "d.toml:5: no.bin: cannot be opened"},
        {std::string(kPlain) + "section = 3\n", "d.toml:5: section is a list of tables"},
        {std::string(kPlain) + "section = [3]\n", "d.toml:5: section is a list of tables"},
        {kPlain + section + "address = 1\n", "d.toml:5: name is missing"},
        {kPlain + section + "name = \"n\"\n", "d.toml:5: address is missing"},
        {kPlain + section + "name = \"n\"\naddress = 0x100000000\n",
         "d.toml:7: address is a whole num"},
        {kPlain + section + "name = \"n\"\naddress = 1\n", "d.toml:5: file is missing"},
        {kPlain + section + "name = \"n\"\naddress = 1\nfile = \"no.bin\"\n",
         "d.toml:8: no.bin: cannot be opened: No such file"},
        {kPlain + section + "name = \"n\"\naddress = 1\nfile = \".\"\n", "d.toml:8: "},
        {kPlain + section + "name = \"1234567890123456\"\n", "d.toml:6: name has at most 15"},
        {kPlain + section + "name_hex = \"00\"\n", "d.toml:6: name_hex is 32 hexadecimal"},
        {kPlain + section + "name = \"n\"\nname_hex = \"00\"\n", "d.toml:6: either name or"},
        {kPlain + section + "name = \"n\"\naddress = 0\nfile = \"f.bin\"\ncolor = 1\n",
         "d.toml:9: unknown key 'color'; known are: name, name_hex, address, file, size, "
         "fill, "
         "reserved24"},
        {kPlain + section + "name = \"n\"\naddress = 0\nsize = 1\n",
         "d.toml:8: size is for clear sections alone"},
        {kPlain + clear + "file = \"f.bin\"\nsize = 1\n", "d.toml:8: either file or size"},
        {kPlain + clear + "fill = 1\n", "d.toml:8: fill goes with size"},
        {kPlain + clear + "size = 1\nfill = 256\n",
         "d.toml:9: fill is a whole number from 0 to 255"},
        {kPlain + clear + "size = -1\n", "d.toml:8: size is a whole number from 0 to 4294967295"},
        {kPlain + clear, "d.toml:5: file is missing"},
    };
    for (const auto& row : kRows)
        EXPECT_THAT(Refused(row.text), StartsWith(std::string("qvftool: ") + row.message))
            << row.text;
}

TEST_F(CreateTest, AVersionIsTwoNumbersOf16Bits) {
    for (const char* version : {"", "1", ".", "1.", ".1", "1.65536", "65536.0", "1.2.3", "a.b",
                                "-1.0", "1. 2", "000001.1"})
        EXPECT_THAT(Refused("product_code = 1\nhardware = \"A\"\nfirmware = \"" +
                            std::string(version) + "\"\ncompatibility = 1\n"),
                    HasSubstr("d.toml:3: firmware is \"major.minor\""))
            << version;
    EXPECT_EQ(0, Create("product_code = 1\nhardware = \"A\"\nfirmware = \"65535.65535\"\n"
                        "compatibility = 1\n")
                     .status);
}

TEST_F(CreateTest, SixteenSectionsAreTheMost) {
    Put("f.bin", "x");
    std::string text = kPlain;
    for (int i = 0; i < 16; ++i)
        text += "[[section]]\nname = \"s\"\naddress = 0\nfile = \"f.bin\"\n";
    EXPECT_EQ(0, Create(text).status);
    std::filesystem::remove("out.qvf");
    text += "[[section]]\nname = \"s\"\naddress = 0\nfile = \"f.bin\"\n";
    EXPECT_THAT(Refused(text), HasSubstr("d.toml:69: a package has at most 16 sections"));
}

TEST_F(CreateTest, AClearSectionCanBeGivenBySizeAndFill) {
    const std::string clear =
        kPlain +
        std::string("[[section]]\nname = \"Factory.CLR.L\"\naddress = 0x1000\nsize = 5000\n");
    ASSERT_EQ(0, Create(clear).status);
    EXPECT_EQ(Bytes(5000, 0xFF), SectionData());
    ASSERT_EQ(0, Create(clear + "fill = 0x5A\n").status);
    EXPECT_EQ(Bytes(5000, 0x5A), SectionData());
}

TEST_F(CreateTest, CommentsMayBeInAnyLanguage) {
    Put("f.bin", "x");
    const QvftoolRun run = Create(
        "# F\xC3\xBCr Karten\nproduct_code = 1 # \xE2\x82\xAC\nhardware = \"#\"# \xC3\xA4\n"
        "firmware = '1.2' # \xC3\xA4 \"\ncompatibility = 7\n[[section]]\n"
        "name = \"a\\\"#b\" # \xC3\xA4\naddress = 0\nfile = \"\"\"f.bin\"\"\" # \xC3\xA4\n");
    ASSERT_EQ(0, run.status) << run.errors;
    EXPECT_THAT(Run({"info", "out.qvf"}).output,
                AllOf(HasSubstr("hardware        #"), HasSubstr(" a\"#b ")));
}

TEST_F(CreateTest, OutsideOfCommentsAllIsAscii) {
    for (const char* text : {"# \"\nhardware = \"\xC3\xA4\"\n", "a = '#'\xC3\xA4\n",
                             "a = \"\"\"#\n# \xC3\xA4 \"\"\"\n", "a = '''\n# \xC3\xA4 '''\n",
                             "a = \"\\\"# \xC3\xA4\"\n"})
        EXPECT_THAT(Refused(text), HasSubstr("only ASCII characters are allowed")) << text;
}

TEST_F(CreateTest, APlaceThatCannotBeWrittenIsNamed) {
    Put("d.toml", kPlain);
    const QvftoolRun run = Run({"create", "d.toml", "-o", "no/such/out.qvf"});
    EXPECT_EQ(2, run.status);
    EXPECT_THAT(run.errors, StartsWith("qvftool: no/such/out.qvf: cannot be written"));
}

class ExtractTest : public QvftoolFixture {
  protected:
    void ExpectSameAfterExtractAndCreate(const Bytes& file) {
        std::filesystem::remove_all("apart");
        PackageBuilder::WriteBytes("x.qvf", file);
        const QvftoolRun apart = Run({"extract", "x.qvf", "-d", "apart"});
        ASSERT_EQ(0, apart.status) << apart.errors;
        const QvftoolRun again = Run({"create", "apart/description.toml", "-o", "again.qvf"});
        ASSERT_EQ(0, again.status) << again.errors << Text("apart/description.toml");
        EXPECT_TRUE(file == Content("again.qvf")) << Text("apart/description.toml");
    }
};

TEST_F(ExtractTest, APackageComesOutAsItWentIn) {
    PackageBuilder package = Package()
                                 .Firmware(65535, 0)
                                 .Section("Factory.Main", 0x200000, 5000)
                                 .Section("Upgrade.CLR", 0, 0)
                                 .Section("q\"u\\o/te", 0xFFFFFFFF, 1);
    ExpectSameAfterExtractAndCreate(package.File());
    EXPECT_EQ(package.Data(0), Content("apart/01-Factory.Main.bin"));
    EXPECT_TRUE(std::filesystem::exists("apart/02-Upgrade.CLR.bin"));
    EXPECT_TRUE(std::filesystem::exists("apart/03-q_u_o_te.bin"));
}

TEST_F(ExtractTest, PackagesOfEverySectionCountAndBytesBehindThemComeOutAsTheyWentIn) {
    PackageBuilder package = Package();
    for (uint32_t i = 0; i <= 16; ++i) {
        ExpectSameAfterExtractAndCreate(package.File());
        package.Section("Section " + std::to_string(i), i * 4096, i * 7);
    }
    Bytes file = Package().Section("S", 0, 10).File();
    file.insert(file.end(), {1, 2, 3});
    ExpectSameAfterExtractAndCreate(file);
    EXPECT_EQ((Bytes{1, 2, 3}), Content("apart/trailing.bin"));
}

TEST_F(ExtractTest, NamesOfAnyBytesComeOutAsTheyWentIn) {
    for (const std::string& name :
         {std::string("1234567890123456"), std::string("\x80\xFF\n\t"), std::string("a\0b", 3),
          std::string("../../etc/x"), std::string(), std::string(16, '\xFF')})
        ExpectSameAfterExtractAndCreate(Package().Section(name, 0, 3).File());
}

// Every readable change of every header byte.
TEST_F(ExtractTest, EveryHeaderByteComesOutAsItWentIn) {
    const Bytes file = Package().Section("Factory.A", 0x1000, 3).File();
    const size_t headerLength = 157 + 28;
    for (size_t at = 4; at < headerLength; ++at) {
        const bool isLayout = at == 10 || at == 11 || at == 156 || (at >= 177 && at < 181);
        if (isLayout) continue;
        Bytes changed = file;
        changed[at] = static_cast<uint8_t>(changed[at] ^ 0xFF);
        SCOPED_TRACE(at);
        ExpectSameAfterExtractAndCreate(changed);
    }
}

// Only `check` judges such a package.
TEST_F(ExtractTest, ASectionBehindTheLastAddressComesOutAsItWentIn) {
    ExpectSameAfterExtractAndCreate(Package().Section("A", 0xFFFFFFFF, 10).File());
}

TEST_F(ExtractTest, WhatIsNoPackageIsRefusedAndNothingIsMade) {
    const Bytes file = Package().Section("A", 0, 10).File();
    for (size_t length = 0; length < file.size(); ++length) {
        PackageBuilder::WriteBytes("x.qvf",
                                   Bytes(file.begin(), file.begin() + static_cast<long>(length)));
        const QvftoolRun run = Run({"extract", "x.qvf", "-d", "apart"});
        EXPECT_EQ(2, run.status) << length;
        EXPECT_THAT(run.errors, StartsWith("qvftool: x.qvf: ")) << length;
        EXPECT_THAT(Here(), UnorderedElementsAre("x.qvf")) << length;
    }
}

TEST_F(ExtractTest, AFolderWithSomethingInItIsNotTouched) {
    Package().Write("x.qvf");
    std::filesystem::create_directory("full");
    Put("full/mine", "precious");
    const QvftoolRun run = Run({"extract", "x.qvf", "-d", "full"});
    EXPECT_EQ(2, run.status);
    EXPECT_THAT(run.errors, HasSubstr("full: is there already"));
    EXPECT_EQ("precious", Text("full/mine"));
    std::filesystem::create_directory("empty");
    EXPECT_EQ(0, Run({"extract", "x.qvf", "-d", "empty/"}).status);
    EXPECT_TRUE(std::filesystem::exists("empty/description.toml"));
    EXPECT_THAT(Here(), UnorderedElementsAre("x.qvf", "full", "empty"));
}

}  // namespace
}  // namespace qvtest
