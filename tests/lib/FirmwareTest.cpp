// Flash operations and identity of a channel: one request a call, records byte by byte.
#include "ChannelFixture.h"

namespace qvtest {
namespace {

class FirmwareTest : public ChannelTest {};

// A channel whose record has something else in every byte than the record of any card.
class IdentityTest : public ChannelTest {
  protected:
    qvsim::BoardBuilder BoardUnderTest() override {
        return Pelix().RawInfo([this](_QVCAP_CHANNEL_INFO& info) {
            memcpy(static_cast<void*>(&info), record.data(), record.size());
        });
    }
    const Bytes record = ArbitraryBytes(sizeof(_QVCAP_CHANNEL_INFO), 3);
};

TEST_F(IdentityTest, IsTheDriversRecord) {
    struct {
        _QVCAP_CHANNEL_INFO info;
        uint8_t guard[8];
    } out;
    memset(static_cast<void*>(&out), kUntouched, sizeof out);
    EXPECT_EQ(QV_RESULT_OK, QVGetChannelInfo(channel, &out.info));
    EXPECT_EQ(record, BytesOf(out.info));
    EXPECT_EQ(Bytes(8, kUntouched), BytesOf(out.guard));
    EXPECT_THAT(Requests(), ElementsAre("GetChannelInfo"));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetChannelInfo(channel, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetChannelInfo(nullptr, &out.info));
    RefuseFromNowOn("GetChannelInfo");
    EXPECT_EQ(QV_RESULT_FAILED, QVGetChannelInfo(channel, &out.info));
}

TEST_F(FirmwareTest, FamilyInfoCopiesAsManyOfThe17BytesAsAskedFor) {
    Bytes all(20, kUntouched);
    EXPECT_EQ(QV_RESULT_OK, QVGetFamilyInfo(channel, all.data(), 17));
    EXPECT_EQ(Bytes(3, kUntouched), Bytes(all.begin() + 17, all.end()));
    Bytes part(20, kUntouched);
    EXPECT_EQ(QV_RESULT_OK, QVGetFamilyInfo(channel, part.data(), 5));
    EXPECT_EQ(Bytes(all.begin(), all.begin() + 5), Bytes(part.begin(), part.begin() + 5));
    EXPECT_EQ(Bytes(15, kUntouched), Bytes(part.begin() + 5, part.end()));
    Bytes more(20, kUntouched);
    EXPECT_EQ(QV_RESULT_OK, QVGetFamilyInfo(channel, more.data(), 1000));
    EXPECT_EQ(all, more);  // never beyond the 17 that the driver gave
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetFamilyInfo(channel, nullptr, 17));
    RefuseFromNowOn("GetFamilyInfo");
    EXPECT_EQ(QV_RESULT_FAILED, QVGetFamilyInfo(channel, more.data(), 17));
}

TEST_F(FirmwareTest, EraseSendsOffsetAndSize) {
    EXPECT_EQ(QV_RESULT_OK, QVEraseFirmwareData(channel, 0x1000, 0x2000));
    EXPECT_EQ(Bytes(Wire().U32(0x1000).U32(0x2000)), Received("EraseFirmwareData"));
    EXPECT_THAT(Requests(), ElementsAre("EraseFirmwareData"));
    EXPECT_EQ(Bytes(0x2000, 0xFF), rig.Flash(0, 0, 0x1000, 0x2000));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVEraseFirmwareData(nullptr, 0, 1));
    RefuseFromNowOn("EraseFirmwareData");
    EXPECT_EQ(QV_RESULT_FAILED, QVEraseFirmwareData(channel, 0, 1));
}

TEST_F(FirmwareTest, WriteSendsOffsetSizeAndTheZeroExtendedAddress) {
    Bytes data = ArbitraryBytes(70000, 4);  // more than one chunk of a caller, still one request
    ASSERT_EQ(QV_RESULT_OK, QVEraseFirmwareData(channel, 0x10000, 0x12000));
    rig.ClearJournal();
    EXPECT_EQ(QV_RESULT_OK, QVWriteFirmwareData(channel, 0x10000, data.data(), 70000));
    EXPECT_EQ(Bytes(Wire().U32(0x10000).U32(70000).U64(reinterpret_cast<uintptr_t>(data.data()))),
              Received("WriteFirmwareData"));
    EXPECT_THAT(Requests(), ElementsAre("WriteFirmwareData"));
    EXPECT_EQ(data, rig.Flash(0, 0, 0x10000, 70000));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVWriteFirmwareData(channel, 0, nullptr, 1));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVWriteFirmwareData(nullptr, 0, data.data(), 1));
    RefuseFromNowOn("WriteFirmwareData");
    EXPECT_EQ(QV_RESULT_FAILED, QVWriteFirmwareData(channel, 0, data.data(), 1));
}

TEST_F(FirmwareTest, ReadDeliversWhatStandsInFlashAndHowMuch) {
    Bytes data = ArbitraryBytes(300, 5);
    ASSERT_EQ(QV_RESULT_OK, QVEraseFirmwareData(channel, 0x4000, 4096));
    ASSERT_EQ(QV_RESULT_OK, QVWriteFirmwareData(channel, 0x4000, data.data(), 300));
    Bytes read(316, kUntouched);
    unsigned int count = 0;
    EXPECT_EQ(QV_RESULT_OK, QVReadFirmwareData(channel, 0x4000, read.data(), 300, &count));
    EXPECT_EQ(300u, count);
    EXPECT_EQ(data, Bytes(read.begin(), read.begin() + 300));
    EXPECT_EQ(Bytes(16, kUntouched), Bytes(read.begin() + 300, read.end()));
}

TEST_F(FirmwareTest, AShortReadReportsTheSmallerCountAndIsNoFailure) {
    rig.AddFault({.request = "ReadFirmwareData", .effect = qvsim::ShortRead(100)});
    Bytes read(157, kUntouched);
    unsigned int count = 0;
    EXPECT_EQ(QV_RESULT_OK, QVReadFirmwareData(channel, 0, read.data(), 157, &count));
    EXPECT_EQ(100u, count);
    EXPECT_EQ(Bytes(57, kUntouched), Bytes(read.begin() + 100, read.end()));
}

TEST_F(FirmwareTest, ReadRefusesMissingMemoryAndLeavesTheCountAfterAFailure) {
    Bytes read(16);
    unsigned int count = 77;
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVReadFirmwareData(channel, 0, nullptr, 16, &count));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVReadFirmwareData(channel, 0, read.data(), 16, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVReadFirmwareData(nullptr, 0, read.data(), 16, &count));
    EXPECT_THAT(rig.Journal(), IsEmpty());
    RefuseFromNowOn("ReadFirmwareData");
    EXPECT_EQ(QV_RESULT_FAILED, QVReadFirmwareData(channel, 0, read.data(), 16, &count));
    EXPECT_EQ(77u, count);
}

TEST_F(FirmwareTest, StorageInfoTellsTheFirmwareOffsetAtOffset12) {
    _QVCAP_FIRMWARE_STORAGE storage;
    memset(&storage, kUntouched, sizeof storage);
    EXPECT_EQ(QV_RESULT_OK, QVGetFirmwareStorageInfo(channel, &storage));
    EXPECT_NE(0xCCCCCCCCu, uint32_t{storage.firmwareOffset});
    EXPECT_THAT(Requests(), ElementsAre("GetFirmwareStorageInfo"));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetFirmwareStorageInfo(channel, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetFirmwareStorageInfo(nullptr, &storage));
    RefuseFromNowOn("GetFirmwareStorageInfo");
    EXPECT_EQ(QV_RESULT_FAILED, QVGetFirmwareStorageInfo(channel, &storage));
}

}  // namespace
}  // namespace qvtest
