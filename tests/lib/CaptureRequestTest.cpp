// The capture-frame record byte by byte in its six variants, and the other capture, image and
// buffer operations.
#include "ChannelFixture.h"

namespace qvtest {
namespace {

constexpr unsigned long long kContext = 0x1122334455667788ull;
constexpr unsigned int kFourcc = 0x3231564E;
constexpr _LARGE_INTEGER kBusAddress{0x123456789ALL};

class CaptureRequestTest : public ChannelTest {
  protected:
    // The record up to the deinterlace mode, with the defaults of the plain variants.
    Wire Head() {
        return Wire()
            .U32(kFourcc)
            .U16(1920)
            .U16(1080)
            .Zeros(8)
            .Zeros(12)
            .U16(100)
            .U16(0)
            .U16(100)
            .U16(0)
            .Zeros(32)
            .U32(1)
            .U32(0);
    }
    Bytes Sent() { return Received("CaptureVideoFrame"); }

    alignas(8) unsigned char m_frame[64] = {};
    const unsigned long long m_address = reinterpret_cast<uintptr_t>(m_frame);
};

TEST_F(CaptureRequestTest, ToVirtualAddressFillsTheRecordWithItsDefaults) {
    QVCaptureVideoFrameToVirtualAddress(channel, -2, m_address, 64, 32, 1, kContext, kFourcc, 1920,
                                        1080);
    EXPECT_EQ(Bytes(Head()
                        .U32(static_cast<uint32_t>(-2))
                        .U64(0)
                        .Zeros(64)
                        .U32(0)
                        .U8(0)
                        .U64(m_address)
                        .U32(64)
                        .U32(32)
                        .U8(1)
                        .U16(0)
                        .U32(0)
                        .U64(kContext)),
              Sent());
    EXPECT_EQ(188u, Sent().size());
    EXPECT_THAT(Requests(), ElementsAre("CaptureVideoFrame"));
}

TEST_F(CaptureRequestTest, ToPhysicalAddressMarksItAndKeepsAll64Bits) {
    QVCaptureVideoFrameToPhysicalAddress(channel, 3, kBusAddress, 64, 32, 0, kContext, kFourcc,
                                         1920, 1080);
    EXPECT_EQ(Bytes(Head()
                        .U32(3)
                        .U64(0)
                        .Zeros(64)
                        .U32(0)
                        .U8(1)
                        .U64(0x123456789Aull)
                        .U32(64)
                        .U32(32)
                        .U8(0)
                        .U16(0)
                        .U32(0)
                        .U64(kContext)),
              Sent());
}

TEST_F(CaptureRequestTest, WithOsdCarriesHandleRectanglesAndCount) {
    const _RECT rects[2] = {{1, 2, 3, 4}, {-5, 6, 7, 8}};
    const Bytes tail = Wire()
                           .U64(77)
                           .U32(1)
                           .U32(2)
                           .U32(3)
                           .U32(4)
                           .U32(static_cast<uint32_t>(-5))
                           .U32(6)
                           .U32(7)
                           .U32(8)
                           .Zeros(32)
                           .U32(2);
    QVCaptureVideoFrameWithOSDToVirtualAddress(channel, -1, m_address, 64, 32, 0, 0, kFourcc, 1920,
                                               1080, 77, rects, 2);
    Bytes sent = Sent();
    ASSERT_EQ(188u, sent.size());
    EXPECT_EQ(tail, Bytes(sent.begin() + 80, sent.begin() + 156));
    EXPECT_EQ(0, sent[156]);
    QVCaptureVideoFrameWithOSDToPhysicalAddress(channel, -1, kBusAddress, 64, 32, 0, 0, kFourcc,
                                                1920, 1080, 77, rects, 2);
    sent = Sent();
    EXPECT_EQ(tail, Bytes(sent.begin() + 80, sent.begin() + 156));
    EXPECT_EQ(1, sent[156]);
}

TEST_F(CaptureRequestTest, TheExVariantsSetEveryField) {
    const _RECT osd[1] = {{1, 2, 3, 4}};
    const _RECT source{10, 20, 30, 40};
    const _RECT destination{50, 60, 70, 80};
    const auto expected = [&](int physical, uint64_t address) -> Bytes {
        return Wire()
            .U32(kFourcc)
            .U16(640)
            .U16(480)
            .U32(16)
            .U32(9)
            .U32(201)
            .U32(202)
            .U32(203)
            .U16(static_cast<uint16_t>(-1))
            .U16(2)
            .U16(static_cast<uint16_t>(-3))
            .U16(4)
            .U32(10)
            .U32(20)
            .U32(30)
            .U32(40)
            .U32(50)
            .U32(60)
            .U32(70)
            .U32(80)
            .U32(5)
            .U32(6)
            .U32(static_cast<uint32_t>(-1))
            .U64(99)
            .U32(1)
            .U32(2)
            .U32(3)
            .U32(4)
            .Zeros(48)
            .U32(1)
            .U8(static_cast<uint64_t>(physical))
            .U64(address)
            .U32(64)
            .U32(32)
            .U8(1)
            .U16(0x2345)
            .U32(0xABCD)
            .U64(kContext);
    };
    QVCaptureVideoFrameToVirtualAddressEx(channel, -1, m_address, 64, 32, 1, kContext, kFourcc, 640,
                                          480, 0xABCD, 0x12345, 99, osd, 1, -1, 2, -3, 4, 5, 6,
                                          &source, &destination, 16, 9, 201, 202, 203);
    EXPECT_EQ(expected(0, m_address), Sent());
    QVCaptureVideoFrameToPhysicalAddressEx(channel, -1, kBusAddress, 64, 32, 1, kContext, kFourcc,
                                           640, 480, 0xABCD, 0x12345, 99, osd, 1, -1, 2, -3, 4, 5,
                                           6, &source, &destination, 16, 9, 201, 202, 203);
    EXPECT_EQ(expected(1, 0x123456789Aull), Sent());
    EXPECT_EQ(2u, Requests().size());
}

TEST_F(CaptureRequestTest, TheExVariantsLeaveMissingRectanglesZero) {
    QVCaptureVideoFrameToVirtualAddressEx(channel, -1, m_address, 64, 32, 0, 0, kFourcc, 640, 480,
                                          0, 0, 0, nullptr, 0, 100, 0, 100, 0, 1, 0, nullptr,
                                          nullptr, 0, 0, 0, 0, 0);
    const Bytes sent = Sent();
    EXPECT_EQ(Bytes(32, 0), Bytes(sent.begin() + 36, sent.begin() + 68));
}

TEST_F(CaptureRequestTest, AddressZeroAndOsdHandleZeroAreBadArguments) {
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT,
              QVCaptureVideoFrameToVirtualAddress(channel, -1, 0, 64, 32, 0, 0, kFourcc, 8, 8));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT,
              QVCaptureVideoFrameToVirtualAddressEx(channel, -1, 0, 64, 32, 0, 0, kFourcc, 8, 8, 0,
                                                    0, 0, nullptr, 0, 0, 0, 0, 0, 0, 0, nullptr,
                                                    nullptr, 0, 0, 0, 0, 0));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT,
              QVCaptureVideoFrameWithOSDToVirtualAddress(channel, -1, 0, 64, 32, 0, 0, kFourcc, 8,
                                                         8, 5, nullptr, 0));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT,
              QVCaptureVideoFrameWithOSDToVirtualAddress(channel, -1, m_address, 64, 32, 0, 0,
                                                         kFourcc, 8, 8, 0, nullptr, 0));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT,
              QVCaptureVideoFrameWithOSDToPhysicalAddress(channel, -1, kBusAddress, 64, 32, 0, 0,
                                                          kFourcc, 8, 8, 0, nullptr, 0));
    EXPECT_THAT(rig.Journal(), IsEmpty());
}

TEST_F(CaptureRequestTest, OsdCountsOutside0To4AreBadArguments) {
    const _RECT rects[5] = {};
    for (int count : {-1, 5, 0x7FFFFFFF})
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT,
                  QVCaptureVideoFrameWithOSDToVirtualAddress(channel, -1, m_address, 64, 32, 0, 0,
                                                             kFourcc, 8, 8, 5, rects, count))
            << count;
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT,
              QVCaptureVideoFrameWithOSDToVirtualAddress(channel, -1, m_address, 64, 32, 0, 0,
                                                         kFourcc, 8, 8, 5, nullptr, 1));
    EXPECT_THAT(rig.Journal(), IsEmpty());
    QVCaptureVideoFrameWithOSDToVirtualAddress(channel, -1, m_address, 64, 32, 0, 0, kFourcc, 8, 8,
                                               5, rects, 4);
    EXPECT_THAT(Requests(), ElementsAre("CaptureVideoFrame"));
}

TEST_F(CaptureRequestTest, ARefusedCaptureFailsAndNullChannelsAreBadArguments) {
    RefuseFromNowOn("CaptureVideoFrame");
    EXPECT_EQ(QV_RESULT_FAILED, QVCaptureVideoFrameToVirtualAddress(channel, -1, m_address, 64, 32,
                                                                    0, 0, kFourcc, 8, 8));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVCaptureVideoFrameToVirtualAddress(
                                          nullptr, -1, m_address, 64, 32, 0, 0, kFourcc, 8, 8));
}

TEST_F(CaptureRequestTest, PinningSendsAddressSizeAndTheConstant3) {
    EXPECT_EQ(QV_RESULT_OK, QVPinVideoBuffer(channel, m_address, 64));
    EXPECT_EQ(Bytes(Wire().U64(m_address).U64(64).U64(3)), Received("PinVideoBuffer"));
    EXPECT_EQ(QV_RESULT_OK, QVUnpinVideoBuffer(channel, m_address));
    EXPECT_EQ(Bytes(Wire().U64(m_address)), Received("UnpinVideoBuffer"));
    EXPECT_EQ(QV_RESULT_FAILED, QVUnpinVideoBuffer(channel, m_address)) << "no longer pinned";
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVPinVideoBuffer(channel, 0, 64));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVUnpinVideoBuffer(channel, 0));
}

TEST_F(CaptureRequestTest, ImagesAreCreatedOpenedAndClosedByHandle) {
    const unsigned long long image = QVCreateImage(channel, 320, 200);
    ASSERT_NE(0u, image);
    EXPECT_EQ(Bytes(Wire().U16(320).U16(200).U64(0)), Received("CreateImage"));
    long references = -1;
    EXPECT_EQ(QV_RESULT_OK, QVOpenImage(channel, image, &references));
    EXPECT_EQ(2, references);
    EXPECT_EQ(QV_RESULT_OK, QVCloseImage(channel, image, &references));
    EXPECT_EQ(1, references);
    EXPECT_EQ(QV_RESULT_OK, QVCloseImage(channel, image, &references));
    EXPECT_EQ(0, references);
    references = 7;
    EXPECT_EQ(QV_RESULT_FAILED, QVCloseImage(channel, image, &references));
    EXPECT_EQ(7, references);
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVOpenImage(channel, 0, &references));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVCloseImage(channel, 0, &references));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVOpenImage(channel, image, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVCloseImage(channel, image, nullptr));
    RefuseFromNowOn("CreateImage");
    EXPECT_EQ(0u, QVCreateImage(channel, 320, 200));
    EXPECT_EQ(0u, QVCreateImage(nullptr, 320, 200));
}

TEST_F(CaptureRequestTest, StartingCaptureNeedsAnEvent) {
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVStartVideoCapture(channel, 0));
    EXPECT_THAT(rig.Journal(), IsEmpty());
    const unsigned long long event = QVCreateEvent();
    EXPECT_EQ(QV_RESULT_OK, QVStartVideoCapture(channel, event));
    EXPECT_EQ(Bytes(Wire().U64(event)), Received("StartVideoCapture"));
    _QVCAP_VIDEO_CAPTURE_STATUS status;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoCaptureStatus(channel, &status));
    _QVCAP_VIDEO_BUFFER_INFO buffers;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoBufferInfo(channel, &buffers));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoCaptureStatus(channel, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoBufferInfo(channel, nullptr));
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCapture(channel));
    EXPECT_EQ(QV_RESULT_OK, QVCloseEvent(event));
}

TEST_F(CaptureRequestTest, FrameInformationIsAskedByIndexAndCopiedOnSuccessAlone) {
    _QVCAP_VIDEO_FRAME_INFO info;
    memset(&info, kUntouched, sizeof info);
    RefuseFromNowOn("GetVideoFrameInfo");
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoFrameInfo(channel, 5, &info));
    EXPECT_EQ(Bytes(64, kUntouched), BytesOf(info));
    rig.Cards().ClearFaults();
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoFrameInfo(channel, 5, &info));
    EXPECT_EQ(5, Received("GetVideoFrameInfo")[0]);
    EXPECT_EQ(68u, Received("GetVideoFrameInfo").size());
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoFrameInfo(channel, 5, nullptr));
}

TEST_F(CaptureRequestTest, NoAudioFrameIsNoDataAndOtherRefusalsAreFailures) {
    _QVCAP_AUDIO_CAPTURE_FRAME frame;
    EXPECT_EQ(QV_RESULT_NO_DATA, QVCaptureAudioFrame(channel, &frame));  // none was started
    RefuseFromNowOn("CaptureAudioFrame", EIO);
    EXPECT_EQ(QV_RESULT_FAILED, QVCaptureAudioFrame(channel, &frame));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVCaptureAudioFrame(channel, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVCaptureAudioFrame(nullptr, &frame));
}

}  // namespace
}  // namespace qvtest
