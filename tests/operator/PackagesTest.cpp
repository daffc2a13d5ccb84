// The packages of a folder as qvcap takes them: by the tool's own rule, and never by the folder's
// order.
#include "Digest.h"
#include "Packages.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/PackageBuilder.h"
#include "support/TempFolder.h"

namespace qvtest {
namespace {

namespace fs = std::filesystem;
using qvo::Card;
using qvo::PackageSet;

class OperatorPackagesTest : public testing::Test {
  protected:
    std::string operator/(const char* name) const { return folder + "/" + name; }

    static Card CardOf(uint16_t code, char hardware) {
        Card card;
        card.identified = true;
        card.productCode = code;
        card.hardwareVersion = static_cast<uint8_t>(hardware);
        return card;
    }
    const TempFolder temporary{"qvcap-packages"};
    const std::string folder = temporary.Path();
};

TEST_F(OperatorPackagesTest, EveryRegularFileWithTheNameIsOneAndTheyAreSorted) {
    Package().Write(*this / "b.qvf.bak");
    Package().Write(*this / "a.qvf");
    Package().Write(*this / "c.QVF");
    Package().Write(*this / "target");
    fs::create_symlink("target", *this / "link.qvf");
    fs::create_directory(*this / "folder.qvf");
    ASSERT_EQ(0, mkfifo((*this / "pipe.qvf").c_str(), 0600));
    const PackageSet set(folder);
    std::vector<std::string> names;
    for (const qvo::FirmwarePackage& package : set.Packages()) names.push_back(package.name);
    EXPECT_THAT(names, testing::ElementsAre("a.qvf", "b.qvf.bak", "link.qvf"));
    EXPECT_TRUE(set.Unreadable().empty());
}

// Such a file would fill the memory.
TEST_F(OperatorPackagesTest, WhatIsLargerThanAnyCardIsNotRead) {
    Package().Section("A", 0x1000, 100).Write(*this / "large.qvf");
    fs::resize_file(*this / "large.qvf", uint64_t{20} << 30);
    const PackageSet set(folder);
    EXPECT_TRUE(set.Packages().empty());
    ASSERT_EQ(1u, set.Unreadable().size());
    EXPECT_EQ("holds " + std::to_string((uint64_t{20} << 30) - 157 - 28) +
                  " bytes, more than any card has",
              set.Unreadable()[0].reason);
}

TEST_F(OperatorPackagesTest, WhatCannotBeReadIsKeptWithTheReason) {
    Package().Section("A", 0x1000, 100).ClaimSize(101).Write(*this / "cut.qvf");
    PackageBuilder::WriteBytes(*this / "empty.qvf", {});
    Package().Write(*this / "good.qvf");
    const PackageSet set(folder);
    EXPECT_EQ(1u, set.Packages().size());
    ASSERT_EQ(2u, set.Unreadable().size());
    EXPECT_EQ("cut.qvf", set.Unreadable()[0].name);
    EXPECT_EQ("section 1 has 101 bytes, but only 100 are left in the file",
              set.Unreadable()[0].reason);
    EXPECT_EQ("empty.qvf", set.Unreadable()[1].name);
}

TEST_F(OperatorPackagesTest, AFolderThatIsNotThereIsAMistake) {
    EXPECT_THROW(PackageSet(folder + "/none"), qvf::Mistake);
}

TEST_F(OperatorPackagesTest, ProductCodeAndHardwareDecide) {
    Package().ProductCode(1).Hardware('A').Write(*this / "1a.qvf");
    Package().ProductCode(1).Hardware('B').Write(*this / "1b.qvf");
    Package().ProductCode(2).Hardware('A').Write(*this / "2a.qvf");
    const PackageSet set(folder);
    ASSERT_NE(nullptr, set.For(CardOf(1, 'B')).Only());
    EXPECT_EQ("1b.qvf", set.For(CardOf(1, 'B')).Only()->name);
    EXPECT_TRUE(set.For(CardOf(3, 'A')).packages.empty());
    EXPECT_TRUE(set.For(Card()).packages.empty()) << "a card that did not say what it is";
}

TEST_F(OperatorPackagesTest, OfTwoThatFitNoneIsChosen) {
    Package().Firmware(1, 1).Write(*this / "a.qvf");
    Package().Firmware(1, 2).Write(*this / "b.qvf");
    const PackageSet set(folder);
    const qvo::Fit fit = set.For(CardOf(0x0101, 'A'));
    EXPECT_TRUE(fit.IsAmbiguous());
    EXPECT_EQ(nullptr, fit.Only());
}

TEST_F(OperatorPackagesTest, ContentsAreTheFileAndItsDigest) {
    const PackageBuilder builder = Package().Section("A", 0x1000, 70000);
    builder.Write(*this / "a.qvf");
    const PackageSet set(folder);
    const auto contents = set.Contents(set.Packages().at(0));
    EXPECT_EQ(builder.Header(), contents->header);
    EXPECT_EQ(builder.Data(0), contents->package.sections[0].data);
    EXPECT_EQ(qvf::Sha256(builder.File()), contents->Sha256());
    EXPECT_EQ(contents, set.Contents(set.Packages()[0])) << "it is read once";
}

TEST_F(OperatorPackagesTest, ADigestIsOfAllPiecesOneBehindTheOther) {
    const qvf::Bytes a = {'a'};
    const qvf::Bytes bc = {'b', 'c'};
    const std::string abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    EXPECT_EQ(abc, qvf::Sha256(qvf::Pieces{a, {}, bc}));
    EXPECT_EQ(abc, qvf::Sha256(qvf::Bytes{'a', 'b', 'c'}));
    EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
              qvf::Sha256(qvf::Bytes{}));
}

TEST_F(OperatorPackagesTest, AFileThatWasReplacedMeanwhileIsNotBelieved) {
    Package().Firmware(1, 1).Write(*this / "a.qvf");
    const PackageSet set(folder);
    Package().Firmware(1, 2).Write(*this / "a.qvf");
    EXPECT_THROW(set.Contents(set.Packages().at(0)), qvf::Mistake);
}

}  // namespace
}  // namespace qvtest
