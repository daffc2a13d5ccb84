// Counted arrays: capacity in, the driver's count out, and what happens when it is larger.
#include "ChannelFixture.h"

namespace qvtest {
namespace {

class ArraysTest : public ChannelTest {};

TEST_F(ArraysTest, InputSourcesComeWithTheirCount) {
    unsigned int sources[8];
    memset(sources, kUntouched, sizeof sources);
    unsigned int count = 8;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputSourceArray(channel, sources, &count));
    EXPECT_EQ(3u, count);
    EXPECT_EQ(0x101u, sources[0]);
    EXPECT_EQ(0x301u, sources[2]);
    EXPECT_EQ(0xCCCCCCCCu, sources[3]);
    count = 8;
    EXPECT_EQ(QV_RESULT_OK, QVGetAudioInputSourceArray(channel, sources, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(0x501u, sources[0]);
}

TEST_F(ArraysTest, MoreInputSourcesThanFitIsAFailureThatKeepsTheCallersCount) {
    unsigned int sources[3] = {0, 0, 0xCCCCCCCC};
    unsigned int count = 2;
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoInputSourceArray(channel, sources, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(0xCCCCCCCCu, sources[2]);
    count = 1;
    EXPECT_EQ(QV_RESULT_FAILED, QVGetAudioInputSourceArray(channel, sources, &count));
    EXPECT_EQ(1u, count);
}

TEST_F(ArraysTest, AnArrayThatFitsExactlyIsWhole) {
    unsigned int sources[4] = {0, 0, 0, 0xCCCCCCCC};
    unsigned int count = 3;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputSourceArray(channel, sources, &count));
    EXPECT_EQ(3u, count);
    EXPECT_EQ(0x301u, sources[2]);
    EXPECT_EQ(0xCCCCCCCCu, sources[3]);
    count = 2;
    EXPECT_EQ(QV_RESULT_OK, QVGetAudioInputSourceArray(channel, sources, &count));
    EXPECT_EQ(2u, count);
}

TEST_F(ArraysTest, OtherArraysHandTheDriversCountBackAlsoWhenItIsLarger) {
    _QVCAP_VIDEO_TIMING timings[2];
    memset(timings, kUntouched, sizeof timings);
    unsigned int count = 1;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoPreferredTimingArray(channel, timings, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(Bytes(sizeof timings[1], kUntouched), BytesOf(timings[1]));

    unsigned char edid[64];
    unsigned long size = sizeof edid;
    EXPECT_EQ(QV_RESULT_OK, QVGetEDID(channel, edid, &size));
    EXPECT_EQ(128u, size);

    Bytes streams(64, kUntouched);
    count = 1;
    EXPECT_EQ(
        QV_RESULT_OK,
        QVGetStreamInfos(channel, reinterpret_cast<_QVCAP_STREAM_INFO*>(streams.data()), &count));
    EXPECT_EQ(2u, count);
}

TEST_F(ArraysTest, ArraysThatWereSetComeBack) {
    const Bytes edid = ArbitraryBytes(128, 1);
    EXPECT_EQ(QV_RESULT_OK, QVSetEDID(channel, const_cast<unsigned char*>(edid.data()), 128));
    Bytes read(256, kUntouched);
    unsigned long size = read.size();
    EXPECT_EQ(QV_RESULT_OK, QVGetEDID(channel, read.data(), &size));
    EXPECT_EQ(128u, size);
    EXPECT_EQ(edid, Bytes(read.begin(), read.begin() + 128));

    _QVCAP_VIDEO_CUSTOM_RESOLUTION set[3] = {{{1, 2, 3, 4}}, {{5, 6, 7, 8}}, {{9, 10, 11, 12}}};
    EXPECT_EQ(QV_RESULT_OK, QVSetCustomVideoResolutionsArray(channel, set, 3));
    _QVCAP_VIDEO_CUSTOM_RESOLUTION got[4];
    unsigned int count = 4;
    EXPECT_EQ(QV_RESULT_OK, QVGetCustomVideoResolutionsArray(channel, got, &count));
    EXPECT_EQ(3u, count);
    EXPECT_EQ(0, memcmp(set, got, sizeof set));
    EXPECT_EQ(QV_RESULT_OK, QVGetCustomVideoResolutionsCount(channel, &count));
    EXPECT_EQ(3u, count);

    _QVCAP_VIDEO_CUSTOM_TIMING timings[2] = {{{1}}, {{2}}};
    EXPECT_EQ(QV_RESULT_OK, QVSetCustomVideoTimingsArray(channel, timings, 2));
    _QVCAP_VIDEO_CUSTOM_TIMING back[2];
    count = 2;
    EXPECT_EQ(QV_RESULT_OK, QVGetCustomVideoTimingsArray(channel, back, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(0, memcmp(timings, back, sizeof timings));
    EXPECT_EQ(QV_RESULT_OK, QVGetCustomVideoTimingsCount(channel, &count));
    EXPECT_EQ(2u, count);
    int streams = 0;
    EXPECT_EQ(QV_RESULT_OK, QVGetStreamCount(channel, &streams));
    EXPECT_EQ(2, streams);
}

TEST_F(ArraysTest, ARecordCarriesCapacityAndTheAddressZeroExtended) {
    unsigned int sources[8];
    unsigned int count = 8;
    QVGetVideoInputSourceArray(channel, sources, &count);
    EXPECT_EQ(Bytes(Wire().U32(8).U64(reinterpret_cast<uintptr_t>(sources))),
              Received("GetVideoInputSourceArray"));
    unsigned char edid[4] = {};
    QVSetEDID(channel, edid, 4);
    EXPECT_EQ(Bytes(Wire().U32(4).U64(reinterpret_cast<uintptr_t>(edid))), Received("SetEDID"));
}

TEST_F(ArraysTest, RefusalsAndNullPointers) {
    unsigned int sources[8];
    unsigned int count = 8;
    unsigned long size = 8;
    unsigned char edid[8];
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoInputSourceArray(channel, nullptr, &count));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoInputSourceArray(channel, sources, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoInputSourceArray(nullptr, sources, &count));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetEDID(channel, nullptr, &size));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetEDID(channel, edid, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVSetEDID(channel, nullptr, 8));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoPreferredTimingArray(channel, nullptr, &count));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetStreamInfos(channel, nullptr, &count));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVSetCustomVideoTimingsArray(channel, nullptr, 1));
    EXPECT_THAT(rig.Journal(), IsEmpty());
    for (const char* request :
         {"GetVideoInputSourceArray", "GetEDID", "SetEDID", "GetVideoPreferredTimingArray"})
        RefuseFromNowOn(request);
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoInputSourceArray(channel, sources, &count));
    EXPECT_EQ(8u, count);
    EXPECT_EQ(QV_RESULT_FAILED, QVGetEDID(channel, edid, &size));
    EXPECT_EQ(8u, size);
    EXPECT_EQ(QV_RESULT_FAILED, QVSetEDID(channel, edid, 8));
}

}  // namespace
}  // namespace qvtest
