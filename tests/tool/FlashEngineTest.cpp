// One upgrade without a user: chunks, addresses, percentages at their limits.
#include "FlashEngine.h"

#include "ToolFixture.h"
#include "ToolTexts.h"

namespace qvtest {
namespace {

using qvsim::Pelix;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr unsigned int kUntouched = 77;

class FlashEngineTest : public ToolFixture {
  protected:
    ~FlashEngineTest() override { QVCloseChannel(channel); }

    void Open() {
        Start();
        channel = QVOpenChannelByPath("/dev/video0");
        ASSERT_NE(nullptr, channel);
        rig.ClearJournal();
        g_dwCMD = kCmdYes;
    }
    std::string Upgrade(char mode = kNormalMode) {
        return Printed([&] { result = UpgradeInternel(channel, 2, 5, mode, &progress); });
    }
    // Requests on the flash, as "Erase 0x200000 65536".
    std::vector<std::string> FlashRequests() {
        std::vector<std::string> out;
        for (const qvsim::JournalLine& line : rig.JournalLines()) {
            const size_t end = line.request.find("FirmwareData");
            if (end == std::string::npos) continue;
            unsigned offset = 0;
            unsigned size = 0;
            sscanf(line.arguments.c_str(), "offset=%x size=%u", &offset, &size);
            char text[64];
            snprintf(text, sizeof text, "%.*s 0x%x %u", static_cast<int>(end), line.request.c_str(),
                     offset, size);
            out.push_back(text);
        }
        return out;
    }

    QV_CHANNEL channel = nullptr;
    int result = -1;
    unsigned int progress = kUntouched;
};

TEST_F(FlashEngineTest, AnnouncesItsNumberAmongAllAndItsVersions) {
    rig.Add(Pelix().Board(3).Product("P").Firmware(2, 10));
    Package().Firmware(3, 0).Write("p.qvf");
    Open();
    EXPECT_THAT(Upgrade(), testing::StartsWith("[2/5] [03:00 P]  Upgrade from 2.10 to 3.0   ("));
    EXPECT_EQ(kUpgraded, result);
    EXPECT_EQ(kUntouched, progress);
}

TEST_F(FlashEngineTest, SectionsAreTakenInTableOrderInChunksOf64KiB) {
    rig.Add(Pelix());
    Package()
        .Section("B", 0x300000, 65536)
        .Section("Factory.CLR.", 0x500000, 65537)
        .Section("A", 0x200000, 131073)
        .Section("Empty", 0x400000, 0)
        .Write("p.qvf");
    Open();
    Upgrade();
    EXPECT_EQ(kUpgraded, result);
    EXPECT_THAT(FlashRequests(),
                ElementsAre("Erase 0x100000 269", "Erase 0x300000 65536", "Erase 0x500000 65536",
                            "Erase 0x510000 1", "Read 0x500000 65536", "Read 0x510000 1",
                            "Erase 0x200000 65536", "Erase 0x210000 65536", "Erase 0x220000 1",
                            "Write 0x100000 269", "Write 0x300000 65536", "Write 0x200000 65536",
                            "Write 0x210000 65536", "Write 0x220000 1", "Read 0x100000 269",
                            "Read 0x300000 65536", "Read 0x200000 65536", "Read 0x210000 65536",
                            "Read 0x220000 1"));
}

TEST_F(FlashEngineTest, AShortReadVerifiesNothingThoughTheBufferHoldsTheSameBytes) {
    rig.Add(Pelix());
    Package().Section("Factory.Main", 0x200000, Bytes(65537, 0x5A)).Write("p.qvf");
    Open();
    // The header, 64 KiB, and the last byte.
    rig.AddFault({.request = "ReadFirmwareData", .nth = 3, .effect = qvsim::ShortRead(0)});
    EXPECT_THAT(Upgrade(), HasSubstr("read error 65536\n"));
    EXPECT_EQ(kVerifyFailed, result);
}

TEST_F(FlashEngineTest, ASafeUpgradePutsTheHeader4096BytesFurtherOn) {
    rig.Add(Pelix().FirmwareOffset(0x345000));
    Package().Section("Upgrade.X", 0x600000, 5).Section("Y", 0x700000, 5).Write("p.qvf");
    Open();
    EXPECT_THAT(Upgrade(kSafeMode), HasSubstr("Safe upgrade from"));
    EXPECT_THAT(FlashRequests(),
                ElementsAre("Erase 0x346000 213", "Erase 0x600000 5", "Write 0x346000 213",
                            "Write 0x600000 5", "Read 0x346000 213", "Read 0x600000 5"));
}

TEST_F(FlashEngineTest, SixteenSectionsWriteAHeaderOf605Bytes) {
    rig.Add(Pelix());
    PackageBuilder package = Package();
    for (uint32_t i = 0; i < 16; ++i) package.Section("S", 0x200000 + i * 4096, 1);
    package.Write("p.qvf");
    Open();
    Upgrade();
    EXPECT_EQ(kUpgraded, result);
    EXPECT_TRUE(package.Header() == rig.Flash(0, 0, 0x100000, 605));
}

TEST_F(FlashEngineTest, AChannelThatIsNoneCannotBeQueried) {
    Start();
    EXPECT_EQ(kCannotQuery, UpgradeInternel(kInvalidChannel, 1, 1, kNormalMode, &progress));
    EXPECT_EQ(kCannotQuery, UpgradeInternel(nullptr, 1, 1, kNormalMode, &progress));
    EXPECT_EQ(kUntouched, progress);
}

TEST_F(FlashEngineTest, WithoutAPackageNothingIsAskedOfTheFlash) {
    rig.Add(Pelix());
    Open();
    EXPECT_EQ("", Upgrade());
    EXPECT_EQ(kNoPackage, result);
    EXPECT_THAT(FlashRequests(), IsEmpty());
}

// The percentage is 32-bit arithmetic: done * 100 wraps above 42949672 bytes.
TEST_F(FlashEngineTest, ThePercentageWrapsAbove42Megabytes) {
    rig.Add(Pelix().FlashSize(64u << 20));
    Open();
    _QV_FIRMWARE_HEADER header = {};
    unsigned char* data[kMaxSections] = {};
    header.headerLength = 185;
    header.sectionCount = 1;
    strcpy(header.sections[0].name, "Factory.CLR.");
    header.sections[0].address = 0x101000;
    header.sections[0].size = 50'000'000;
    _QVCAP_FIRMWARE_STORAGE storage = {0, 0, 0, 0x100000};
    rig.AddFault({.request = "ReadFirmwareData", .effect = qvsim::Refuse(EIO)});
    const std::string printed = Printed([&] {
        result = UpgradeFirmware(channel, &header, data, &storage, kNormalMode, &progress);
    });
    EXPECT_EQ(kEraseFailed, result);
    // 655 chunks and 185 bytes are 42926265 (85%), one chunk more 42991801: wrapped to 0%.
    EXPECT_THAT(printed, HasSubstr("(Erasing ------------- 85%)" + Clear(27) +
                                   "(Erasing -------------  0%)" + Clear(27)));
    // 50000185 * 100 - 2^32 = 705051204, of 50000185.
    EXPECT_EQ(14u, progress);
}

TEST_F(FlashEngineTest, ATotalThatWrapsToZeroCountsAsZeroPercent) {
    rig.Add(Pelix());
    Open();
    _QV_FIRMWARE_HEADER header = {};
    unsigned char* data[kMaxSections] = {};
    header.headerLength = 213;
    header.sectionCount = 2;
    header.sections[0].size = 0x80000000;
    header.sections[0].address = 0x200000;
    header.sections[1].size = 0x80000000 - 213;
    _QVCAP_FIRMWARE_STORAGE storage = {0, 0, 0, 0x100000};
    rig.AddFault({.request = "EraseFirmwareData", .nth = 3, .effect = qvsim::Refuse(EIO)});
    const std::string printed = Printed([&] {
        result = UpgradeFirmware(channel, &header, data, &storage, kNormalMode, &progress);
    });
    EXPECT_EQ(kEraseFailed, result);
    EXPECT_EQ(0u, progress);
    const std::string zero = "(Erasing -------------  0%)";
    EXPECT_EQ(zero + Clear(28) + zero + Clear(27) + zero + Clear(28) + Clear(28), printed);
}

}  // namespace
}  // namespace qvtest
