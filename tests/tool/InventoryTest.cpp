// The upgrade list: what a record holds, which channels are listed, when an upgrade is safe.
#include "Inventory.h"

#include "ToolFixture.h"

// A channel without a package stays open on purpose.
extern "C" const char* __lsan_default_suppressions() { return "leak:QVOpenChannelByPath\n"; }

namespace qvtest {
namespace {

using qvsim::Lumo;
using qvsim::Pelix;
using qvsim::Refuse;
using testing::ElementsAre;
using testing::IsEmpty;

class InventoryTest : public ToolFixture {
  protected:
    InventoryTest() { std::memset(&record, 0, sizeof record); }

    std::vector<std::string> Listed(int board = kAnyIndex, int channel = kAnyIndex,
                                    int capacity = kListCapacity) {
        count = capacity;
        EXPECT_EQ(0, GetDevicesInfo(g_arrChannsInfo, &count, board, channel));
        std::vector<std::string> names;
        for (int i = 0; i < count; ++i) names.push_back(g_arrChannsInfo[i].captureName);
        return names;
    }
    int Praise(std::string text) {
        count = kListCapacity;
        return PraiseDeviceArg(text.data(), g_arrChannsInfo, &count);
    }

    _QVCAP_UPGRADE_LIST_INFO_ record;
    int count = -1;
};

TEST_F(InventoryTest, ARecordHoldsWhatTheCardAndThePackageSay) {
    rig.Add(Pelix().Board(12).Product("Pelix 4K").Hardware('C').Serial("B123").Firmware(0x0102, 3));
    Package().Hardware('C').Firmware(0x0102, 4).Write("p.qvf");
    Start();
    ASSERT_EQ(kInventoryOk, GetDeviceInfo("/dev/video0", &record));
    EXPECT_STREQ("12:00 Pelix 4K", record.captureName);
    EXPECT_STREQ("/dev/video0", record.devicePath);
    EXPECT_STREQ("258.3", record.currentVersion);
    EXPECT_STREQ("258.4", record.newVersion);
    EXPECT_STREQ("B123", record.boardSerialNumber);
    EXPECT_EQ(1, record.needUpgrade);
    EXPECT_EQ(0, record.safeUpgrade);
    EXPECT_EQ('C', record.hardwareVersion);
    EXPECT_EQ(1, g_nDevicesNeedUpgrade);
    EXPECT_EQ(0u, rig.Cards().CountAlive().files - 1);  // the event node alone
}

TEST_F(InventoryTest, BadArgumentsMissingNodesAndOtherFilesHaveTheirResults) {
    rig.Add(Pelix()).ForeignNode(4);
    Start();
    EXPECT_EQ(kBadArgument, GetDeviceInfo(nullptr, &record));
    EXPECT_EQ(kBadArgument, GetDeviceInfo("/dev/video0", nullptr));
    EXPECT_EQ(kNoSuchDevice, GetDeviceInfo("/dev/video1", &record));
    EXPECT_EQ(kNotACaptureDevice, GetDeviceInfo("/dev/video4", &record));
    EXPECT_EQ(kNotACaptureDevice, GetDeviceInfo("/dev/null", &record));
    EXPECT_THAT(rig.Journal(), IsEmpty());
}

TEST_F(InventoryTest, EveryListedPathIsACaptureDeviceAndNoOther) {
    rig.Add(Pelix().Channels(2)).Add(Lumo()).Add(qvsim::Tavo()).ForeignNode(9);
    Start();
    for (const char* path : {"/dev/video0", "/dev/video1", "/dev/video2", "/dev/video3"})
        EXPECT_EQ(1, IsPelixCaptureDevice(path)) << path;
    for (const char* path : {"/dev/video9", "/dev/video", "", "video0"})
        EXPECT_EQ(0, IsPelixCaptureDevice(path)) << path;
    EXPECT_EQ(0, IsPelixCaptureDevice(nullptr));
}

TEST_F(InventoryTest, TextsThatFillTheirFieldsAreBounded) {
    rig.Add(Pelix().RawInfo([](_QVCAP_CHANNEL_INFO& info) {
        std::memset(info.familyName, 'F', sizeof info.familyName);
        std::memset(info.productName, 'P', sizeof info.productName);
        std::memset(info.furtherText, 'X', sizeof info.furtherText);
        std::memset(info.boardSerialNumber, 'S', sizeof info.boardSerialNumber);
        info.boardIndex = 255;
        info.channelIndex = 255;
        info.firmwareVersion = 0xFFFFFFFF;
    }));
    Package().Firmware(0xFFFF, 0xFFFF).Write("p.qvf");
    Start();
    ASSERT_EQ(kInventoryOk, GetDeviceInfo("/dev/video0", &record));
    EXPECT_EQ("255:255 " + std::string(64, 'P'), record.captureName);
    EXPECT_EQ(std::string(16, 'S'), std::string(record.boardSerialNumber, 16));
    EXPECT_STREQ("65535.65535", record.currentVersion);
    EXPECT_STREQ("65535.65535", record.newVersion);
    EXPECT_EQ(0, record.needUpgrade);
}

TEST_F(InventoryTest, VersionsAreComparedUnsigned) {
    rig.Add(Pelix().RawInfo([](_QVCAP_CHANNEL_INFO& info) { info.firmwareVersion = 0x7FFFFFFF; }));
    Package().Firmware(0x8000, 0).Write("p.qvf");
    Start();
    GetDeviceInfo("/dev/video0", &record);
    EXPECT_EQ(1, record.needUpgrade);
}

TEST_F(InventoryTest, TheForceOptionPlaysNoPartInTheNeed) {
    rig.Add(Pelix().Firmware(1, 1));
    Package().Firmware(1, 1).Write("p.qvf");
    Start();
    g_dwCMD = kCmdForce;
    record.needUpgrade = 1;
    GetDeviceInfo("/dev/video0", &record);
    EXPECT_EQ(0, record.needUpgrade);
    EXPECT_EQ(0, g_nDevicesNeedUpgrade);
}

TEST_F(InventoryTest, WithoutAPackageTheVersionIsEmptyAndBothFlagsStay) {
    rig.Add(Pelix());
    Start();
    strcpy(record.newVersion, "9.9");
    record.needUpgrade = 1;
    record.safeUpgrade = 1;
    EXPECT_EQ(kInventoryOk, GetDeviceInfo("/dev/video0", &record));
    EXPECT_STREQ("", record.newVersion);
    EXPECT_EQ(1, record.needUpgrade);
    EXPECT_EQ(1, record.safeUpgrade);
    EXPECT_THAT(rig.Journal(),
                ElementsAre("open /dev/video0 = 0", "ioctl /dev/video0 GetChannelInfo = 0"));
}

// The package's code must equal the code of the stored header, which counts only when it is the
// running firmware's; else 0. Code 1 is never safe.
TEST_F(InventoryTest, AnUpgradeIsSafeExactlyWhenTheCodesAgree) {
    const uint16_t kCodes[] = {0, 1, 2, 3, 0xFFFF};
    for (const bool storedRuns : {true, false}) {
        for (const uint16_t stored : kCodes) {
            for (const uint16_t offered : kCodes) {
                qvsim::SimRig card;
                card.Add(
                    Pelix().Firmware(1, 0).Stored(storedRuns ? 1 : 0, storedRuns ? 0 : 9, stored));
                Package().Compatibility(offered).Write("p.qvf");
                card.Attach();
                QVCaptureInitInstance();
                ASSERT_EQ(0, InitialQVFList());
                ASSERT_EQ(kInventoryOk, GetDeviceInfo("/dev/video0", &record));
                const uint16_t reference = storedRuns ? stored : uint16_t{0};
                EXPECT_EQ(offered == reference && offered != 1, record.safeUpgrade == 1)
                    << storedRuns << " " << stored << " " << offered;
                QVCaptureExitInstance();
            }
        }
    }
}

TEST_F(InventoryTest, AnErasedFirmwareAreaIsNeverSafeButForCodeZero) {
    rig.Add(Pelix().NoStoredHeader());
    Package().Compatibility(0xFFFF).Write("p.qvf");
    Start();
    EXPECT_EQ(kInventoryOk, GetDeviceInfo("/dev/video0", &record));
    EXPECT_EQ(0, record.safeUpgrade);
}

TEST_F(InventoryTest, TheStoredHeaderIsReadWhereTheStorageRecordSays) {
    rig.Add(Pelix().FirmwareOffset(0x345000));
    Package().Write("p.qvf");
    Start();
    GetDeviceInfo("/dev/video0", &record);
    EXPECT_THAT(rig.Journal(),
                testing::Contains(
                    "ioctl /dev/video0 ReadFirmwareData offset=0x345000 size=157 got=157 = 0"));
}

// --- which channels ---------------------------------------------------------------------------

TEST_F(InventoryTest, LumoCardsAreListedOncePelixChannelsOneByOne) {
    rig.Add(Lumo().Channels(4).Product("L")).Add(Pelix().Channels(2).Product("P"));
    Start();
    EXPECT_THAT(Listed(), ElementsAre("00:00 L", "01:00 P", "01:01 P"));
}

TEST_F(InventoryTest, ALumoChannelIsSkippedForAnyListedRecordOfItsSerial) {
    rig.Add(Pelix().Product("P").Serial("SAME"))
        .Add(Lumo().Product("L").Serial("SAME").Channels(2))
        .Add(Pelix().Product("Q").Serial("SAME"))
        .Add(Lumo().Product("M").Serial("SAMEX").Channels(2));
    Start();
    EXPECT_THAT(Listed(), ElementsAre("00:00 P", "02:00 Q", "03:00 M"));
}

TEST_F(InventoryTest, SerialsThatFillTheirFieldAreComparedInFull) {
    const auto serial = [](char last) {
        return [last](_QVCAP_CHANNEL_INFO& info) {
            std::memset(info.boardSerialNumber, 'S', sizeof info.boardSerialNumber);
            info.boardSerialNumber[15] = last;
        };
    };
    rig.Add(Lumo().Product("A").RawInfo(serial('1')))
        .Add(Lumo().Product("B").RawInfo(serial('2')))
        .Add(Lumo().Product("C").RawInfo(serial('1')));
    Start();
    EXPECT_THAT(Listed(), ElementsAre("00:00 A", "01:00 B"));
}

TEST_F(InventoryTest, TheFilterTakesBoardAndChannel) {
    rig.Add(Pelix().Channels(3).Product("P")).Add(Pelix().Channels(2).Product("Q"));
    Start();
    EXPECT_THAT(Listed(1), ElementsAre("01:00 Q", "01:01 Q"));
    EXPECT_THAT(Listed(kAnyIndex, 1), ElementsAre("00:01 P", "01:01 Q"));
    EXPECT_THAT(Listed(0, 2), ElementsAre("00:02 P"));
    EXPECT_THAT(Listed(1, 2), IsEmpty());
    EXPECT_THAT(Listed(-2), IsEmpty());
}

TEST_F(InventoryTest, Of65ChannelsTheFirst64AreListed) {
    for (int i = 0; i < 5; ++i) rig.Add(Pelix().Channels(13).FlashSize(0x110000));
    Start();
    const std::vector<std::string> names = Listed();
    ASSERT_EQ(64u, names.size());
    EXPECT_EQ("04:11 Pelix SIM", names.back());
}

TEST_F(InventoryTest, TheCapacityEndsTheList) {
    rig.Add(Pelix().Channels(3).Product("P"));
    Start();
    EXPECT_THAT(Listed(kAnyIndex, kAnyIndex, 2), ElementsAre("00:00 P", "00:01 P"));
    EXPECT_THAT(Listed(kAnyIndex, kAnyIndex, 0), IsEmpty());
}

TEST_F(InventoryTest, AFailingDeviceEndsTheListAndLeavesTheCount) {
    rig.Add(Pelix()).Add(Pelix()).Add(Pelix());
    Package().Write("p.qvf");
    rig.AddFault({.request = "ReadFirmwareData", .board = 1, .effect = Refuse(EIO)});
    Start();
    count = 17;
    EXPECT_EQ(kDeviceFailed, GetDevicesInfo(g_arrChannsInfo, &count, kAnyIndex, kAnyIndex));
    EXPECT_EQ(17, count);
}

TEST_F(InventoryTest, ADevicePathArgumentListsThatChannelAlone) {
    rig.Add(Pelix().Channels(2).Product("P"));
    Start();
    EXPECT_EQ(kInventoryOk, Praise("/dev/video1"));
    EXPECT_EQ(1, count);
    EXPECT_STREQ("00:01 P", g_arrChannsInfo[0].captureName);
    EXPECT_EQ(kAnyIndex, g_nBoardIndex);
    EXPECT_EQ(kBadArgument, PraiseDeviceArg(nullptr, g_arrChannsInfo, &count));
}

TEST_F(InventoryTest, ABoardAndChannelArgumentBecomesTheFilterMaskedToAByte) {
    Start();
    const struct {
        const char* text;
        int result, board, channel;
    } kRows[] = {
        {"1:2", 0, 1, 2},   {"-1:0", 0, 255, 0}, {"256:257", 0, 0, 1}, {"0::1", 0, 0, 1},
        {":3:4:", 0, 3, 4}, {"x:y", 0, 0, 0},    {"5:", 3, 5, -1},     {"6:7:8", 3, 6, 7},
        {":", 3, -1, -1},   {"::", 3, -1, -1},   {" 9: 10", 0, 9, 10}, {"1a:2b", 0, 1, 2},
    };
    for (const auto& row : kRows) {
        g_nBoardIndex = g_nChannelIndex = kAnyIndex;
        EXPECT_EQ(row.result, Praise(row.text)) << row.text;
        EXPECT_EQ(row.board, g_nBoardIndex) << row.text;
        EXPECT_EQ(row.channel, g_nChannelIndex) << row.text;
    }
}

// --- the table --------------------------------------------------------------------------------

TEST_F(InventoryTest, AnEmptyTableIsItsTotalsAlone) {
    g_nDevicesNeedUpgrade = 3;
    EXPECT_EQ("total 0  need upgrade 3\n", Printed(ListAllChannelInfo));
}

TEST_F(InventoryTest, TheTableHasOneRowForEachRecord) {
    g_nDevicesNum = 2;
    g_nDevicesNeedUpgrade = 1;
    g_arrChannsInfo[0] = {
        "00:00 A name that is longer than its column", "", "1.2", "1.3", "", 1, 0, 'A'};
    g_arrChannsInfo[1] = {"00:01 B", "", "65535.65535", "", "", 0, 1, 'b'};
    EXPECT_EQ("total 2  need upgrade 1\n" + kTableHeader +
                  "00:00 A name that is longer than its column |1.2             |A               "
                  "|1.3             |Need upgrade   \n"
                  "00:01 B                        |65535.65535     |b               |             "
                  "   |Not Need upgrade\n",
              Printed(ListAllChannelInfo));
}

}  // namespace
}  // namespace qvtest
