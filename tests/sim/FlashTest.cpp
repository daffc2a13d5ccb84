// The flash behaves as NOR does, survives the process, and power-on finds the right firmware in it.
#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

using testing::Each;
using testing::ElementsAre;

constexpr uint32_t kMain = 0x100000;
constexpr uint32_t kSafe = kMain + 4096;
constexpr uint32_t kFactoryData = 0x120000;
constexpr uint32_t kUpgradeData = 0x140000;

struct Section {
    const char* name;
    uint32_t address;
    uint32_t size;
};

std::vector<uint8_t> Header(uint32_t version, const std::vector<Section>& sections) {
    std::vector<uint8_t> header(157 + 28 * sections.size());
    const auto put = [&](size_t at, uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i)
            header[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * i));
    };
    put(0, 0x48465651, 4);
    put(8, 7, 2);
    put(10, static_cast<uint32_t>(header.size()), 2);
    put(16, version, 4);
    header[156] = static_cast<uint8_t>(sections.size());
    for (size_t i = 0; i < sections.size(); ++i) {
        const size_t at = 157 + 28 * i;
        std::copy_n(sections[i].name, std::min<size_t>(16, std::string(sections[i].name).size()),
                    header.begin() + static_cast<std::ptrdiff_t>(at));
        put(at + 16, sections[i].address, 4);
        put(at + 20, sections[i].size, 4);
    }
    return header;
}

std::vector<uint8_t> Payload(size_t size) {
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(i * 31 + 7);
    return data;
}

class FlashTest : public testing::Test {
  protected:
    void Start(const BoardBuilder& board) {
        m_rig.Add(board);
        Attach();
        m_card = std::make_unique<Node>("/dev/video0");
    }
    void WriteImage(uint32_t at, uint32_t version, const std::vector<Section>& sections) {
        const std::vector<uint8_t> header = Header(version, sections);
        ASSERT_EQ(0, m_card->Erase(at, static_cast<uint32_t>(header.size())));
        for (const Section& section : sections)
            ASSERT_EQ(0, m_card->Erase(section.address, section.size));
        ASSERT_EQ(0, m_card->Write(at, header));
        for (const Section& section : sections)
            ASSERT_EQ(0, m_card->Write(section.address, Payload(section.size)));
    }
    uint32_t AfterPowerCycle() {
        m_rig.PowerCycle();
        return m_card->RunningVersion();
    }
    virtual void Attach() { m_rig.Attach(); }
    SimRig m_rig;
    std::unique_ptr<Node> m_card;
};

// What is the same with a state directory and in memory alone.
class AnyFlashTest : public FlashTest, public testing::WithParamInterface<bool> {
  protected:
    void Attach() override { GetParam() ? m_rig.AttachInMemory() : m_rig.Attach(); }
};
INSTANTIATE_TEST_SUITE_P(Places, AnyFlashTest, testing::Bool(), [](const auto& tested) {
    return std::string(tested.param ? "InMemory" : "InADirectory");
});

TEST_P(AnyFlashTest, AFreshFlashReadsErased) {
    Start(Pelix().NoStoredHeader());
    EXPECT_THAT(m_card->Read(0, 70000), Each(0xFF));
}

TEST_P(AnyFlashTest, ProgrammingOnlyClearsBits) {
    Start(Pelix());
    ASSERT_EQ(0, m_card->Write(10, {0xF0, 0x3C}));
    ASSERT_EQ(0, m_card->Write(10, {0x0F, 0xFF}));
    EXPECT_THAT(m_card->Read(9, 4), ElementsAre(0xFF, 0x00, 0x3C, 0xFF));
}

TEST_P(AnyFlashTest, AnEraseTakesEverySectorThatItTouches) {
    Start(Pelix());
    ASSERT_EQ(0, m_card->Write(0, std::vector<uint8_t>(3 * 4096, 0)));
    ASSERT_EQ(0, m_card->Erase(4095, 2));
    EXPECT_THAT(m_card->Read(0, 2 * 4096), Each(0xFF));
    EXPECT_THAT(m_card->Read(2 * 4096, 4096), Each(0));
}

TEST_P(AnyFlashTest, WhatLiesOutsideTheChipIsRefused) {
    Start(Pelix().FlashSize(2u << 20));
    EXPECT_EQ(-1, m_card->Erase((2u << 20) - 1, 2));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, m_card->Write(0xFFFFFFFF, {1, 2}));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(m_card->Read((2u << 20) - 1, 2).empty());
    EXPECT_EQ(1u, m_card->Read((2u << 20) - 1, 1).size());
}

TEST_F(FlashTest, NullDataIsAFaultOfTheCaller) {
    Start(Pelix());
    EXPECT_EQ(-1, m_card->Do(qv::kWriteFirmwareData, qv::FirmwareDataRecord{0, 4, 0}));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(-1, m_card->Do(qv::kReadFirmwareData, qv::FirmwareDataRecord{0, 4, 0}));
    EXPECT_EQ(EFAULT, errno);
}

TEST_P(AnyFlashTest, ALumoHasOneFlashForAllChannelsAPelixOneEach) {
    m_rig.Add(Pelix().Channels(2)).Add(Lumo().Channels(2));
    Attach();
    Node pelix0("/dev/video0"), pelix1("/dev/video1"), lumo0("/dev/video2"), lumo1("/dev/video3");
    ASSERT_EQ(0, pelix0.Write(0, {1}));
    ASSERT_EQ(0, lumo0.Write(0, {1}));
    EXPECT_THAT(pelix1.Read(0, 1), ElementsAre(0xFF));
    EXPECT_THAT(lumo1.Read(0, 1), ElementsAre(1));
}

TEST_F(FlashTest, FlashOutlivesTheProcessThatWroteIt) {
    Start(Pelix());
    ASSERT_EQ(0, m_card->Write(5, {0x42}));
    m_card.reset();
    m_rig.Detach();
    EXPECT_THAT(m_rig.Flash(0, 0, 4, 3), ElementsAre(0xFF, 0x42, 0xFF));
    m_rig.Attach();
    EXPECT_THAT(Node("/dev/video0").Read(5, 1), ElementsAre(0x42));
}

TEST_F(FlashTest, TheJournalNamesRangesAndChecksums) {
    Start(Pelix());
    m_rig.ClearJournal();
    m_card->Erase(kMain, 4096);
    m_card->Write(kMain, {'1', '2', '3', '4', '5', '6', '7', '8', '9'});
    m_card->Read(kMain, 16);
    EXPECT_THAT(m_rig.Journal(),
                ElementsAre("ioctl /dev/video0 EraseFirmwareData offset=0x100000 size=4096 = 0",
                            "ioctl /dev/video0 WriteFirmwareData offset=0x100000 size=9 "
                            "crc=0xcbf43926 = 0",
                            "ioctl /dev/video0 ReadFirmwareData offset=0x100000 size=16 got=16 "
                            "= 0"));
}

TEST_P(AnyFlashTest, ACompleteImageRunsAfterPowerOnAndNotBefore) {
    Start(Pelix().Firmware(1, 0));
    WriteImage(kMain, Version(1, 1), {{"Factory.Main", kFactoryData, 5000}});
    EXPECT_EQ(Version(1, 0), m_card->RunningVersion());
    EXPECT_EQ(Version(1, 1), AfterPowerCycle());
}

TEST_F(FlashTest, PowerOnSeesWhatAnotherProcessWrote) {
    Start(Pelix().Firmware(1, 0));
    std::shared_ptr<Model> other;
    ASSERT_EQ("", Model::Load(m_rig.Dir(), other));  // as a process of its own
    WriteImage(kMain, Version(1, 1), {{"Factory.Main", kFactoryData, 5000}});
    other->PowerCycle();
    m_card = std::make_unique<Node>("/dev/video0");  // an open looks at the folder
    EXPECT_EQ(Version(1, 1), m_card->RunningVersion());
}

TEST_P(AnyFlashTest, AnImageWithOneByteMissingFallsBackToTheGoldenVersion) {
    Start(Pelix().Firmware(1, 0).Golden(0, 9));
    WriteImage(kMain, Version(1, 1), {{"Factory.Main", kFactoryData, 5000}});
    ASSERT_EQ(0, m_card->Erase(kFactoryData + 4999, 1));
    ASSERT_EQ(0, m_card->Write(kFactoryData + 4096, Payload(903)));
    EXPECT_EQ(Version(0, 9), AfterPowerCycle());
}

TEST_P(AnyFlashTest, AHeaderWithOneByteMissingFallsBackToTheGoldenVersion) {
    Start(Pelix().Firmware(1, 0).Golden(0, 9));
    const std::vector<Section> sections = {{"Factory.Main", kFactoryData, 5000}};
    WriteImage(kMain, Version(1, 1), sections);
    std::vector<uint8_t> header = Header(Version(1, 1), sections);
    ASSERT_EQ(0, m_card->Erase(kMain, 1));
    header.pop_back();  // of the last section's entry, where nothing but completeness depends on it
    ASSERT_EQ(0, m_card->Write(kMain, header));
    EXPECT_EQ(Version(0, 9), AfterPowerCycle());
}

TEST_P(AnyFlashTest, ASectorThatAPowerCutGarbledIsNoPartOfAnImage) {
    Start(Pelix().Firmware(1, 0).Golden(0, 9));
    WriteImage(kMain, Version(1, 1), {{"Factory.Main", kFactoryData, 2048}});
    EXPECT_EQ(Version(1, 1), AfterPowerCycle());
    m_rig.AddFault({.request = "WriteFirmwareData", .effect = PowerLoss()});
    EXPECT_EQ(-1, m_card->Write(kFactoryData + 2048, Payload(1024)));  // behind the section
    EXPECT_EQ(Version(0, 9), AfterPowerCycle());
}

TEST_P(AnyFlashTest, ASafeUpgradeRunsAndLeavesTheMainImageToFallBackTo) {
    Start(Pelix().Firmware(2, 0).Stored(2, 0, 7));
    WriteImage(kSafe, Version(2, 1),
               {{"Upgrade.Main", kUpgradeData, 300}, {"Factory.Main", kFactoryData, 10}});
    EXPECT_EQ(Version(2, 1), AfterPowerCycle());
    ASSERT_EQ(0, m_card->Erase(kUpgradeData, 1));
    EXPECT_EQ(Version(2, 0), AfterPowerCycle());
}

TEST_F(FlashTest, AMainImageWrittenLaterRunsEvenIfItIsOlder) {
    Start(Pelix().Firmware(2, 0));
    WriteImage(kSafe, Version(2, 1), {});
    EXPECT_EQ(Version(2, 1), AfterPowerCycle());
    WriteImage(kMain, Version(1, 7), {});
    EXPECT_EQ(Version(1, 7), AfterPowerCycle());
}

TEST_P(AnyFlashTest, AClearSectionMustBeBlank) {
    Start(Pelix().Golden(0, 9));
    const std::vector<Section> sections = {{"Factory.CLR.Set", kFactoryData, 4096}};
    const std::vector<uint8_t> header = Header(Version(1, 1), sections);
    ASSERT_EQ(0, m_card->Erase(kMain, 4096));
    ASSERT_EQ(0, m_card->Write(kMain, header));
    EXPECT_EQ(Version(1, 1), AfterPowerCycle());
    ASSERT_EQ(0, m_card->Write(kFactoryData, {0}));
    EXPECT_EQ(Version(0, 9), AfterPowerCycle());
}

TEST_F(FlashTest, ALumoBoardRunsOneVersionOnAllChannels) {
    Start(Lumo().Channels(3).Firmware(1, 0));
    WriteImage(kMain, Version(1, 4), {});
    EXPECT_EQ(Version(1, 4), AfterPowerCycle());
    EXPECT_EQ(Version(1, 4), Node("/dev/video2").RunningVersion());
    EXPECT_EQ(Version(1, 4), m_rig.RunningVersion(0, 1));
}

TEST_F(FlashTest, ShortReadsFlippedBitsAndStuckBitsHitTheRequestTheyName) {
    m_rig.AddFault({.request = "ReadFirmwareData", .nth = 1, .effect = ShortRead(100)})
        .AddFault({.request = "ReadFirmwareData", .nth = 2, .effect = FlipBit(8 * 5000 + 3)})
        .AddFault({.request = "WriteFirmwareData", .nth = 1, .effect = StuckBits(0x80)});
    Start(Pelix());
    ASSERT_EQ(0, m_card->Write(0, {0x00}));
    EXPECT_EQ(100u, m_card->Read(0, 157).size());
    const std::vector<uint8_t> flipped = m_card->Read(0, 6000);
    ASSERT_EQ(6000u, flipped.size());
    EXPECT_EQ(0xF7, flipped[5000]);
    EXPECT_THAT(m_card->Read(0, 2), ElementsAre(0x80, 0xFF));
    ASSERT_EQ(0, m_card->Write(1, {0x00}));
    EXPECT_THAT(m_card->Read(0, 2), ElementsAre(0x80, 0x00));
}

TEST_F(FlashTest, AnEraseThatDoesNotBlankLeavesAByte) {
    m_rig.AddFault({.request = "EraseFirmwareData", .effect = NotBlank()});
    Start(Pelix());
    ASSERT_EQ(0, m_card->Erase(4096, 4096));
    EXPECT_NE(0xFF, m_card->Read(4096, 1)[0]);
    ASSERT_EQ(0, m_card->Erase(4096, 4096));
    EXPECT_EQ(0xFF, m_card->Read(4096, 1)[0]);
}

TEST_P(AnyFlashTest, APowerCutKillsTheBoardAndGarblesTheSectorInWork) {
    m_rig.AddFault({.request = "WriteFirmwareData", .effect = PowerLoss()});
    m_rig.Add(Pelix().Channels(2).Golden(0, 9)).Add(Pelix());
    Attach();
    Node first("/dev/video0"), second("/dev/video1"), other("/dev/video2");
    EXPECT_EQ(-1, first.Write(0, std::vector<uint8_t>(16384, 0x11)));
    EXPECT_EQ(EIO, errno);
    _QVCAP_FIRMWARE_STORAGE storage;
    EXPECT_EQ(-1, second.Do(qv::kGetFirmwareStorageInfo, storage));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, other.Do(qv::kGetFirmwareStorageInfo, storage));
    const std::vector<uint8_t> before = m_rig.Flash(0, 0, 0, 8192);
    EXPECT_THAT(before, Each(0x11));
    const std::vector<uint8_t> cut = m_rig.Flash(0, 0, 8192, 4096);
    EXPECT_NE(std::vector<uint8_t>(4096, 0xFF), cut);
    EXPECT_NE(std::vector<uint8_t>(4096, 0x11), cut);
    EXPECT_THAT(m_rig.Flash(0, 0, 12288, 4096), Each(0xFF));
    m_rig.PowerCycle();
    EXPECT_EQ(0, second.Do(qv::kGetFirmwareStorageInfo, storage));
}

TEST_F(FlashTest, AWritingCutAtAnyRequestNeverRunsHalfAnImage) {
    const std::vector<Section> sections = {{"Factory.A", kFactoryData, 9000},
                                           {"Factory.B", kUpgradeData, 5000}};
    for (int nth = 1; nth <= 6; ++nth) {  // three erases, three writes
        SimRig rig;
        rig.Add(Pelix().Firmware(1, 0).Golden(0, 9));
        const bool erasing = nth <= 3;
        rig.AddFault({.request = erasing ? "EraseFirmwareData" : "WriteFirmwareData",
                      .nth = erasing ? nth : nth - 3,
                      .effect = PowerLoss()});
        rig.Attach();
        Node card("/dev/video0");
        const std::vector<uint8_t> header = Header(Version(1, 1), sections);
        card.Erase(kMain, static_cast<uint32_t>(header.size()));
        for (const Section& section : sections) card.Erase(section.address, section.size);
        card.Write(kMain, header);
        for (const Section& section : sections) card.Write(section.address, Payload(section.size));
        rig.PowerCycle();
        EXPECT_EQ(Version(0, 9), card.RunningVersion()) << "cut at " << nth;
    }
}

TEST_F(FlashTest, APowerCutBehindTheLastByteGarblesNothing) {
    m_rig.AddFault({.request = "EraseFirmwareData", .effect = PowerLoss()});
    Start(Pelix());
    EXPECT_EQ(-1, m_card->Erase(16u << 20, 0));  // of no length, at the end
    EXPECT_EQ(EIO, errno);
}

TEST_F(FlashTest, LostPowerIsRememberedByTheDirectory) {
    m_rig.AddFault({.request = "GetTemperature", .effect = PowerLoss()});
    Start(Pelix());
    uint32_t value = 0;
    EXPECT_EQ(-1, m_card->Do(qv::kGetTemperature, value));
    m_card.reset();
    m_rig.Detach();
    m_rig.Attach();
    m_card = std::make_unique<Node>("/dev/video0");
    EXPECT_EQ(0u, m_card->RunningVersion());
    EXPECT_EQ(Version(1, 0), AfterPowerCycle());
}

TEST_F(FlashTest, AVanishedNodeIsGoneForOpensToo) {
    m_rig.AddFault({.request = "GetTemperature", .effect = NodeGone()});
    Start(Pelix());
    uint32_t value = 0;
    EXPECT_EQ(-1, m_card->Do(qv::kGetTemperature, value));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(0u, m_card->RunningVersion());
    EXPECT_EQ(-1, open("/dev/video0", O_RDWR));
    EXPECT_EQ(ENODEV, errno);
}

TEST_F(FlashTest, ACutBeforeTheFirstByteLeavesAllAndOneBeforeTheLastLeavesNoGarbage) {
    for (const CutPoint point : {CutPoint::kStart, CutPoint::kEnd}) {
        SimRig rig;
        rig.AddFault({.request = "WriteFirmwareData", .nth = 2, .effect = PowerLoss(point)});
        rig.Add(Pelix());
        rig.Attach();
        Node card("/dev/video0");
        EXPECT_EQ(0, card.Write(0, std::vector<uint8_t>(8192, 0x33)));
        EXPECT_EQ(-1, card.Write(0, std::vector<uint8_t>(8192, 0x11)));
        EXPECT_EQ(EIO, errno);
        const bool start = point == CutPoint::kStart;
        EXPECT_THAT(rig.Flash(0, 0, 0, 8191), Each(start ? 0x33 : 0x11));
        EXPECT_THAT(rig.Flash(0, 0, 8191, 1), Each(0x33));
    }
    for (const CutPoint point : {CutPoint::kStart, CutPoint::kEnd}) {
        SimRig rig;
        rig.AddFault({.request = "EraseFirmwareData", .effect = PowerLoss(point)});
        rig.Add(Pelix());
        rig.Attach();
        Node card("/dev/video0");
        EXPECT_EQ(0, card.Write(0, std::vector<uint8_t>(8192, 0x33)));
        EXPECT_EQ(-1, card.Erase(0, 4097));
        const bool start = point == CutPoint::kStart;
        EXPECT_THAT(rig.Flash(0, 0, 0, 4096), Each(start ? 0x33 : 0xFF));
        EXPECT_THAT(rig.Flash(0, 0, 4096, 4096), Each(0x33));
    }
}

TEST_F(FlashTest, ALateOpenComesInTheEndAndIsWrittenDownThen) {
    m_rig.AddFault({.request = "open", .nth = 2, .effect = Slow(1)});
    m_rig.Add(Pelix().Board(3));
    Attach();
    { const Node first("/dev/video0"); }
    EXPECT_THAT(m_rig.MetFaults(), ElementsAre());
    Node second("/dev/video0");
    EXPECT_EQ(Version(1, 0), second.RunningVersion());
    EXPECT_THAT(m_rig.MetFaults(), ElementsAre("slow open board=3 channel=0"));
}

TEST_F(FlashTest, EveryFaultThatIsMetIsWrittenDownOnceItHappened) {
    m_rig.AddFault({.request = "GetTemperature", .nth = 2, .effect = Slow(1)});
    m_rig.AddFault({.request = "GetTemperature", .nth = 3, .effect = Refuse(EIO)});
    Start(Pelix());
    uint32_t value = 0;
    EXPECT_EQ(0, m_card->Do(qv::kGetTemperature, value));
    EXPECT_THAT(m_rig.MetFaults(), ElementsAre());
    EXPECT_EQ(0, m_card->Do(qv::kGetTemperature, value));
    EXPECT_THAT(m_rig.MetFaults(), ElementsAre("slow GetTemperature board=0 channel=0"));
    EXPECT_EQ(-1, m_card->Do(qv::kGetTemperature, value));
    EXPECT_THAT(m_rig.MetFaults(), ElementsAre("slow GetTemperature board=0 channel=0",
                                               "refuse GetTemperature board=0 channel=0"));
}

TEST_F(FlashTest, AVanishedEventNodeIsBackAfterAPowerCycle) {
    m_rig.AddFault({.request = "open", .effect = NodeGone()});
    m_rig.Add(Pelix());
    Attach();
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(-1, open("/dev/qv-event", O_RDWR));
        EXPECT_EQ(ENODEV, errno);
        EXPECT_NE(0, access("/dev/qv-event", F_OK));
    }
    EXPECT_EQ(Version(1, 0), Node("/dev/video0").RunningVersion());
    m_rig.PowerCycle();
    const Node events("/dev/qv-event");
}

TEST_F(FlashTest, PowerThatGoesAtTheEventNodeGoesForEveryBoard) {
    m_rig.AddFault({.request = "open", .effect = PowerLoss()});
    m_rig.Add(Pelix()).Add(Pelix());
    Attach();
    const Node events("/dev/qv-event");
    for (const char* path : {"/dev/video0", "/dev/video1"}) {
        Node card(path);
        uint32_t value = 0;
        EXPECT_EQ(-1, card.Do(qv::kGetTemperature, value)) << path;
        EXPECT_EQ(EIO, errno) << path;
    }
}

}  // namespace
}  // namespace qvsim
