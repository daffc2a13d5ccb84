// Package files: which are listed, which can be loaded, which one fits a channel.
#include "FirmwarePackage.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "ToolFixture.h"

namespace {
int g_looks = 0;  // at files, by name
}

// In the place of the C library's.
extern "C" int stat(const char* path, struct stat* status) noexcept {
    ++g_looks;
    return fstatat(AT_FDCWD, path, status, 0);
}

namespace qvtest {
namespace {

using qvsim::Pelix;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsNull;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class FirmwarePackageTest : public ToolFixture {
  protected:
    ~FirmwarePackageTest() override { FreeSectionData(data, kMaxSections); }

    bool Load(const char* path) {
        FreeSectionData(data, kMaxSections);
        std::memset(&header, 0xCC, sizeof header);
        return READQVF(path, &header, data);
    }
    bool LoadBytes(const Bytes& bytes) {
        PackageBuilder::WriteBytes("x.qvf", bytes);
        return Load("x.qvf");
    }
    Bytes Loaded(int section) const {
        return Bytes(data[section], data[section] + header.sections[section].size);
    }
    static std::vector<std::string> List(int capacity = kMaxQVFFiles) {
        QVFFileName names[kMaxQVFFiles];
        int count = capacity;
        EXPECT_EQ(0, GetQVFFileList(".", names, &count));
        return std::vector<std::string>(names, names + count);
    }
    static void Touch(const std::string& name) { std::ofstream(name) << "x"; }

    _QV_FIRMWARE_HEADER header;
    unsigned char* data[kMaxSections] = {};
};

TEST_F(FirmwarePackageTest, LoadsHeaderTableAndEverySection) {
    PackageBuilder package = Package()
                                 .Firmware(0x1234, 0xFFFF)
                                 .Compatibility(0xABCD)
                                 .ProductCode(0xBEEF)
                                 .Hardware('Z')
                                 .Section("Factory.A", 0x11223344, 100)
                                 .Section("Upgrade.B", 0xFFFFF000, 0)
                                 .Section("C", 7, 4096);
    ASSERT_TRUE(LoadBytes(package.File()));
    const Bytes bytes = package.Header();
    EXPECT_EQ(0, std::memcmp(bytes.data(), &header, bytes.size()));
    EXPECT_EQ(157 + 3 * 28, +header.headerLength);
    EXPECT_EQ(0x1234FFFFu, +header.firmwareVersion);
    EXPECT_EQ(0xABCD, +header.compatibilityCode);
    EXPECT_EQ(0xBEEF, +header.productCode);
    EXPECT_EQ('Z', +header.hardwareVersion);
    EXPECT_EQ(0x11223344u, +header.sections[0].address);
    EXPECT_EQ(package.Data(0), Loaded(0));
    EXPECT_EQ(package.Data(1), Loaded(1));
    EXPECT_EQ(package.Data(2), Loaded(2));
    EXPECT_THAT(data[3], IsNull());
}

TEST_F(FirmwarePackageTest, LoadsAPackageWithoutSections) {
    ASSERT_TRUE(LoadBytes(Package().File()));
    EXPECT_EQ(0, +header.sectionCount);
    EXPECT_THAT(data, Each(IsNull()));
}

TEST_F(FirmwarePackageTest, LoadsSixteenSectionsAndRefusesSeventeen) {
    PackageBuilder package = Package();
    for (uint32_t i = 0; i < 16; ++i) package.Section("S", i * 4096, i + 1);
    ASSERT_TRUE(LoadBytes(package.File()));
    for (int i = 0; i < 16; ++i) EXPECT_EQ(package.Data(static_cast<size_t>(i)), Loaded(i));
    package.Section("S", 0x100000, 1);
    EXPECT_FALSE(LoadBytes(package.File()));
    EXPECT_THAT(data, Each(IsNull()));
}

TEST_F(FirmwarePackageTest, SeventeenSectionsWriteNothingBehindTheHeader) {
    PackageBuilder package = Package();
    for (uint32_t i = 0; i < 17; ++i) package.Section("S", i * 4096, 1);
    package.Write("x.qvf");
    struct {
        _QV_FIRMWARE_HEADER header;
        unsigned char guard[64];
    } room;
    std::memset(&room, 0xCC, sizeof room);
    unsigned char* slots[kMaxSections + 1] = {};
    EXPECT_FALSE(READQVF("x.qvf", &room.header, slots));
    EXPECT_THAT(room.guard, Each(0xCC));
    EXPECT_THAT(slots, Each(IsNull()));
}

TEST_F(FirmwarePackageTest, BytesBehindTheLastSectionAreLeftAlone) {
    Bytes file = Package().Section("S", 0, 10).File();
    file.push_back(1);
    EXPECT_TRUE(LoadBytes(file));
}

TEST_F(FirmwarePackageTest, APackageCutAtAnyLengthIsRefusedAndReleased) {
    const Bytes file = Package().Section("A", 0, 40).Section("B", 4096, 30).File();
    for (size_t length = 0; length < file.size(); ++length) {
        EXPECT_FALSE(LoadBytes(Bytes(file.begin(), file.begin() + static_cast<long>(length))))
            << length;
        EXPECT_THAT(data, Each(IsNull())) << length;
    }
    EXPECT_TRUE(LoadBytes(file));
}

// The interrupt key may be ignored while a package is opened: nothing may wait there.
TEST_F(FirmwarePackageTest, AFifoInThePlaceOfAPackageIsRefusedAtOnce) {
    ASSERT_EQ(0, mkfifo("x.qvf", 0600));
    EXPECT_FALSE(Load("x.qvf"));
    EXPECT_THAT(data, Each(IsNull()));
}

// What must hold is the magic, the count, the length that follows from it, and sizes that the file
// can fill; every other byte is free.
TEST_F(FirmwarePackageTest, EveryChangeOfAHeaderOrTableByteIsRefusedOrCarriedAlong) {
    const Bytes file = Package().Section("A", 0, 40).Section("B", 4096, 30).File();
    const size_t headerLength = 157 + 2 * 28;
    const auto mustHold = [](size_t at) { return at < 4 || at == 10 || at == 11 || at == 156; };
    const auto isSize = [](size_t at) {
        return at >= 157 && (at - 157) % 28 >= 20 && (at - 157) % 28 < 24;
    };
    for (size_t at = 0; at < headerLength; ++at) {
        for (const int change : {0x01, 0x80, 0xFF}) {
            Bytes changed = file;
            changed[at] = static_cast<uint8_t>(changed[at] ^ change);
            // A smaller size leaves bytes over, which is allowed.
            const bool fits = !isSize(at) || changed[at] < file[at];
            EXPECT_EQ(!mustHold(at) && fits, LoadBytes(changed)) << at << " ^ " << change;
            if (!mustHold(at) && fits) {
                EXPECT_EQ(0, std::memcmp(changed.data(), &header, headerLength)) << at;
            }
        }
    }
}

TEST_F(FirmwarePackageTest, AHeaderLengthOffByOneIsRefused) {
    PackageBuilder package = Package().Section("A", 0, 10);
    for (const int length : {184, 186, 0, 157, 605, 0xFFFF})
        EXPECT_FALSE(
            LoadBytes(PackageBuilder(package).HeaderLength(static_cast<uint16_t>(length)).File()))
            << length;
    EXPECT_TRUE(LoadBytes(package.HeaderLength(185).File()));
}

TEST_F(FirmwarePackageTest, ASizeThatTheFileCannotFillIsRefused) {
    for (const uint32_t size : {11u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        PackageBuilder package = Package().Section("A", 0, 5).Section("B", 0, 10).ClaimSize(size);
        EXPECT_FALSE(LoadBytes(package.File())) << size;
        EXPECT_THAT(data, Each(IsNull()));
    }
}

TEST_F(FirmwarePackageTest, WhatIsNotARegularFileIsRefused) {
    std::filesystem::create_directory("d.qvf");
    EXPECT_FALSE(Load("d.qvf"));
    EXPECT_FALSE(Load("missing.qvf"));
    EXPECT_FALSE(Load("/dev/zero"));
    EXPECT_THAT(data, Each(IsNull()));
}

TEST_F(FirmwarePackageTest, AnEarlyFailureReleasesNoMoreThanTheSixteenSlots) {
    struct {
        unsigned char* slots[kMaxSections];
        unsigned char guard[16 * sizeof(void*)];
    } memory = {};
    std::memset(memory.guard, 0xCC, sizeof memory.guard);
    std::memset(&header, 0xFF, sizeof header);  // the count is 255
    EXPECT_FALSE(READQVF("missing.qvf", &header, memory.slots));
    EXPECT_THAT(memory.guard, Each(0xCC));
}

TEST_F(FirmwarePackageTest, FreeSectionDataEmptiesTheSlotsItIsGiven) {
    for (int i = 0; i < 4; ++i) data[i] = static_cast<unsigned char*>(malloc(10));
    free(data[1]);
    data[1] = nullptr;
    FreeSectionData(data, 3);
    EXPECT_THAT(data[0], IsNull());
    EXPECT_THAT(data[2], IsNull());
    EXPECT_NE(nullptr, data[3]);
}

// --- sections ---------------------------------------------------------------------------------

TEST_F(FirmwarePackageTest, TheNamesBeginningSaysWhichImageASectionBelongsTo) {
    const struct {
        const char* name;
        bool forUpgradeImage;
    } kRows[] = {
        {"Upgrade.", true}, {"Upgrade.Main", true},  {"Upgrade.CLR", true},
        {"Upgrade", false}, {"upgrade.Main", false}, {"Factory.Main", false},
        {"", false},        {" Upgrade.", false},    {"Factory.Upgrade.", false},
    };
    for (const auto& row : kRows) {
        _QV_FIRMWARE_SECTION_HEADER section = {};
        strncpy(section.name, row.name, sizeof section.name);
        EXPECT_EQ(row.forUpgradeImage, IsMatchedSection(0, &section)) << row.name;
        EXPECT_EQ(!row.forUpgradeImage, IsMatchedSection(1, &section)) << row.name;
        EXPECT_EQ(!row.forUpgradeImage, IsMatchedSection(-1, &section)) << row.name;
    }
}

TEST_F(FirmwarePackageTest, ClearSectionsAreToldByPartsOfTheirName) {
    const struct {
        const char* name;
        bool clear;
    } kRows[] = {
        {"Factory.CLR.", true},   {"Factory.CLR.Log", true},
        {"Factory.CLR", false},   {"Upgrade.CLR", true},
        {"Upgrade.CLR.X", true},  {"XUpgrade.CLRX", true},
        {"a.Factory.CLR.", true}, {"Upgrade.clr", false},
        {"CLR", false},           {"", false},
    };
    for (const auto& row : kRows) EXPECT_EQ(row.clear, IsCLRSection(row.name)) << row.name;
}

TEST_F(FirmwarePackageTest, ANameOfSixteenCharactersEndsWhereItsFieldEnds) {
    _QV_FIRMWARE_SECTION_HEADER section = {};
    memcpy(section.name, "12345678Factory.", 16);
    memcpy(&section.address, "CLR.", 4);
    EXPECT_FALSE(IsCLRSection(section.name));
    memcpy(section.name, "12345Upgrade.CLR", 16);
    EXPECT_TRUE(IsCLRSection(section.name));
}

// --- the list ---------------------------------------------------------------------------------

TEST_F(FirmwarePackageTest, RegularFilesWithQvfAnywhereInTheirNameAreListed) {
    for (const char* name :
         {"a.qvf", "b.qvf.bak", ".qvf", "x.qvfx", "c.QVF", "qvf", "dqvf", "e.txt"})
        Touch(name);
    std::filesystem::create_directory("folder.qvf");
    std::filesystem::create_symlink("folder.qvf", "tofolder.qvf");
    std::filesystem::create_symlink("e.txt", "tofile.qvf");
    std::filesystem::create_symlink("nowhere", "dangling.qvf");
    ASSERT_EQ(0, mkfifo("pipe.qvf", 0644));
    EXPECT_THAT(List(), UnorderedElementsAre("a.qvf", "b.qvf.bak", ".qvf", "x.qvfx", "tofile.qvf"));
}

TEST_F(FirmwarePackageTest, FilesWithOtherNamesAreNotLookedAt) {
    for (int i = 0; i < 20; ++i) Touch("foreign" + std::to_string(i) + ".txt");
    Touch("a.qvf");
    Touch("b.qvf");
    g_looks = 0;
    EXPECT_THAT(List(), UnorderedElementsAre("a.qvf", "b.qvf"));
    EXPECT_EQ(2, g_looks);
}

TEST_F(FirmwarePackageTest, OfThirtyThreePackagesTheFirst32InDirectoryOrderAreListed) {
    for (int i = 0; i < 33; ++i) Touch("p" + std::to_string(i) + ".qvf");
    std::vector<std::string> inOrder;
    DIR* stream = opendir(".");
    while (const dirent* entry = readdir(stream))
        if (strstr(entry->d_name, ".qvf") != nullptr) inOrder.push_back(entry->d_name);
    closedir(stream);
    ASSERT_THAT(inOrder, SizeIs(33));
    inOrder.pop_back();
    EXPECT_THAT(List(), ElementsAreArray(inOrder));
    EXPECT_THAT(List(1), ElementsAre(inOrder[0]));
}

TEST_F(FirmwarePackageTest, TheLongestPossibleNameFits) {
    const std::string name = std::string(251, 'n') + ".qvf";
    Touch(name);
    EXPECT_THAT(List(), ElementsAre(name));
}

TEST_F(FirmwarePackageTest, NamesAreLookedUpInTheCurrentDirectory) {
    std::filesystem::create_directory("sub");
    Touch("sub/there.qvf");
    Touch("sub/both.qvf");
    Touch("both.qvf");
    QVFFileName names[4];
    int count = 4;
    EXPECT_EQ(0, GetQVFFileList("sub", names, &count));
    EXPECT_EQ(1, count);
    EXPECT_STREQ("both.qvf", names[0]);
}

TEST_F(FirmwarePackageTest, AListWithoutDirectoryRoomOrCapacityIsRefused) {
    QVFFileName names[1];
    int count = 1;
    EXPECT_EQ(1, GetQVFFileList(nullptr, names, &count));
    EXPECT_EQ(1, GetQVFFileList(".", nullptr, &count));
    EXPECT_EQ(1, count);
    count = 0;
    EXPECT_EQ(1, GetQVFFileList(".", names, &count));
}

TEST_F(FirmwarePackageTest, ADirectoryThatCannotBeOpenedIsReported) {
    QVFFileName names[1];
    int count = 1;
    EXPECT_EQ("Open dir error\n",
              Printed([&] { EXPECT_EQ(1, GetQVFFileList("nowhere", names, &count)); }));
    EXPECT_EQ(0, count);
}

TEST_F(FirmwarePackageTest, TheListIsMadeAnewEveryTime) {
    Touch("a.qvf");
    ASSERT_EQ(0, InitialQVFList());
    EXPECT_EQ(1, g_nQVFFileNum);
    EXPECT_STREQ("a.qvf", g_szQVFFileList[0]);
    Touch("b.qvf");
    ASSERT_EQ(0, InitialQVFList());
    EXPECT_EQ(2, g_nQVFFileNum);
    ExitQVFList();
    EXPECT_EQ(nullptr, g_szQVFFileList);
    ExitQVFList();
}

TEST_F(FirmwarePackageTest, ACurrentDirectoryThatIsGoneFailsTheList) {
    std::filesystem::create_directory("gone");
    std::filesystem::current_path("gone");
    std::filesystem::remove("../gone");
    EXPECT_NE(0, InitialQVFList());
    EXPECT_EQ(nullptr, g_szQVFFileList);
}

// --- the package for a channel ------------------------------------------------------------------

class MatchingTest : public FirmwarePackageTest {
  protected:
    MatchingTest() {
        rig.Add(Pelix().ProductCode(0x2222).Hardware('C'));
        good = Package().ProductCode(0x2222).Hardware('C').Section("S", 0, 10);
    }
    ~MatchingTest() override { QVCloseChannel(channel); }

    // Matches with this list; what was printed.
    std::string Match(const std::vector<std::string>& files) {
        if (channel == nullptr) {
            Start();
            channel = QVOpenChannelByPath("/dev/video0");
        }
        QVFFileName names[8] = {};
        for (size_t i = 0; i < files.size(); ++i)
            snprintf(names[i], sizeof names[i], "%s", files[i].c_str());
        return Printed([&] {
            result = GetUpgradeDataFromQVFFile(channel, names, static_cast<int>(files.size()),
                                               &header, data);
        });
    }

    PackageBuilder good;
    QV_CHANNEL channel = nullptr;
    int result = -1;
};

// How many descriptors this process has open.
ptrdiff_t Descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST_F(FirmwarePackageTest, ListingLeavesNoFolderOpen) {
    Package().Write("p.qvf");
    QVFFileName names[2] = {};
    const ptrdiff_t before = Descriptors();
    for (int i = 0; i < 5; ++i) {
        int count = 2;
        EXPECT_EQ(0, GetQVFFileList(".", names, &count));
        EXPECT_EQ(1, count);
        count = 1;
        EXPECT_EQ(0, GetQVFFileList(".", names, &count))
            << "a full list ends before the folder does";
    }
    EXPECT_EQ(before, Descriptors());
}

class HighHardwareTest : public FirmwarePackageTest {};

// A version is a byte: those of 0x80 and above are compared like the others.
TEST_F(HighHardwareTest, VersionsOf0x80AndAboveMatchTheirOwn) {
    const char high = static_cast<char>(0x80);
    rig.Add(Pelix().ProductCode(0x2222).Hardware(high));
    Package().ProductCode(0x2222).Hardware('\0').Write("zero.qvf");
    Package().ProductCode(0x2222).Hardware(static_cast<char>(0xFF)).Write("other.qvf");
    const PackageBuilder own = Package().ProductCode(0x2222).Hardware(high).Section("S", 0, 10);
    own.Write("own.qvf");
    Start();
    QV_CHANNEL channel = QVOpenChannelByPath("/dev/video0");
    QVFFileName names[3] = {"zero.qvf", "other.qvf", "own.qvf"};
    EXPECT_EQ(1, GetUpgradeDataFromQVFFile(channel, names, 2, &header, data));
    EXPECT_EQ(0, GetUpgradeDataFromQVFFile(channel, names, 3, &header, data));
    EXPECT_EQ(own.Data(0), Loaded(0));
    QVCloseChannel(channel);
}

TEST_F(MatchingTest, ProductCodeAndHardwareVersionMustBothAgree) {
    PackageBuilder(good).ProductCode(0x2223).Write("product.qvf");
    PackageBuilder(good).Hardware('D').Write("hardware.qvf");
    good.Write("good.qvf");
    EXPECT_EQ("", Match({"product.qvf", "hardware.qvf"}));
    EXPECT_EQ(1, result);
    EXPECT_THAT(data, Each(IsNull()));
    EXPECT_EQ("", Match({"product.qvf", "hardware.qvf", "good.qvf"}));
    EXPECT_EQ(0, result);
    EXPECT_EQ(good.Data(0), Loaded(0));
}

TEST_F(MatchingTest, TheFirstMatchInListOrderWins) {
    PackageBuilder(good).Firmware(1, 5).Write("a.qvf");
    PackageBuilder(good).Firmware(9, 0).Write("b.qvf");
    Match({"b.qvf", "a.qvf"});
    EXPECT_EQ(0x00090000u, +header.firmwareVersion);
    FreeSectionData(data, kMaxSections);
    Match({"a.qvf", "b.qvf"});
    EXPECT_EQ(0x00010005u, +header.firmwareVersion);
}

TEST_F(MatchingTest, EveryPackageThatCannotBeReadIsReportedAndPassedOver) {
    PackageBuilder(good).HeaderLength(186).Write("length.qvf");
    PackageBuilder(good).SectionCount(17).Write("count.qvf");
    PackageBuilder(good).Magic("QVFX").Write("magic.qvf");
    Bytes cut = good.File();
    cut.pop_back();
    PackageBuilder::WriteBytes("cut.qvf", cut);
    good.Write("good.qvf");
    EXPECT_EQ(
        "Read length.qvf file failed\nRead count.qvf file failed\nRead magic.qvf file "
        "failed\nRead cut.qvf file failed\nRead missing.qvf file failed\n",
        Match({"length.qvf", "count.qvf", "magic.qvf", "cut.qvf", "missing.qvf", "good.qvf",
               "never.qvf"}));
    EXPECT_EQ(0, result);
}

TEST_F(MatchingTest, AFailedQueryMatchesWhatIsMadeForZeros) {
    PackageBuilder(good).ProductCode(0).Hardware('\0').Write("zero.qvf");
    good.Write("good.qvf");
    Start();
    channel = QVOpenChannelByPath("/dev/video0");
    rig.AddFault({.request = "GetChannelInfo", .effect = qvsim::Refuse(EIO)});
    Match({"good.qvf", "zero.qvf"});
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, +header.productCode);
}

TEST_F(MatchingTest, NoChannelNoListAndNoFilesFindNothingWithoutARequest) {
    Start();
    QVFFileName names[1] = {"a.qvf"};
    EXPECT_EQ(1, GetUpgradeDataFromQVFFile(kInvalidChannel, names, 1, &header, data));
    EXPECT_EQ(1, GetUpgradeDataFromQVFFile(nullptr, nullptr, 1, &header, data));
    EXPECT_EQ(1, GetUpgradeDataFromQVFFile(nullptr, names, 0, &header, data));
    EXPECT_THAT(rig.Journal(), testing::IsEmpty());
}

}  // namespace
}  // namespace qvtest
