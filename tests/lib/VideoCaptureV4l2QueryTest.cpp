// V4L2 queries, picture controls and node look-up against scripted nodes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "VideoCaptureV4l2.h"
#include "lib/FakeV4l2.h"

using fake::V4l2;
using testing::ElementsAre;

namespace {

constexpr char kNode[] = "/dev/video3";

uint32_t Code(const char* text) { return v4l2_fourcc(text[0], text[1], text[2], text[3]); }

v4l2_frmsizeenum Discrete(uint32_t width, uint32_t height) {
    v4l2_frmsizeenum size{};
    size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    size.discrete = {width, height};
    return size;
}

v4l2_frmsizeenum Stepwise(uint32_t type) {
    v4l2_frmsizeenum size{};
    size.type = type;
    size.stepwise = {.min_width = 64,
                     .max_width = 4096,
                     .step_width = 16,
                     .min_height = 32,
                     .max_height = 2160,
                     .step_height = 8};
    return size;
}

v4l2_frmivalenum Interval(uint32_t numerator, uint32_t denominator) {
    v4l2_frmivalenum interval{};
    interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    interval.discrete = {numerator, denominator};
    return interval;
}

class V4l2QueryTest : public testing::Test {
  protected:
    V4l2QueryTest() {
        v4l2.Reset();
        v4l2.AddNode(3);
        v4l2.device.formats = {Code("YUYV"), Code("YU12")};
    }
    ~V4l2QueryTest() override {
        EXPECT_EQ(0, v4l2.Descriptors()) << "a node was left open";
        v4l2.Reset();
    }
    V4l2& v4l2 = V4l2::Get();
};

// ---- tables

struct Pair {
    const char* from;
    const char* to;
};

TEST(V4l2TablesTest, LibraryCodesAreRequestedAsTheseV4l2Formats) {
    for (const Pair& row : {Pair{"YUY2", "YUYV"},
                            {"YUYV", "YUYV"},
                            {"BGR ", "BGR3"},
                            {"I420", "YU12"},
                            {"BGRA", "BGR4"},
                            {"NV12", "NV12"},
                            {"ARGB", "ARGB"},
                            {"I422", "I422"}})
        EXPECT_EQ(Code(row.to), QVFourcc2V4L2Fmt(Code(row.from))) << row.from;
    EXPECT_EQ(0u, QVFourcc2V4L2Fmt(0));
}

TEST(V4l2TablesTest, V4l2FormatsAreReportedAsTheseLibraryCodes) {
    for (const Pair& row : {Pair{"RGB4", "ARGB"},
                            {"RGB3", "RGB "},
                            {"BGR3", "BGR "},
                            {"YU12", "I420"},
                            {"RGBO", "RGB5"},
                            {"BGR4", "BGRA"},
                            {"422P", "I422"},
                            {"RGBP", "RGB6"},
                            {"YUYV", "YUYV"},
                            {"NV12", "NV12"}})
        EXPECT_EQ(Code(row.to), V4L2Fmt2QVFourcc(Code(row.from))) << row.from;
}

TEST(V4l2TablesTest, PictureControlsHaveTheseIds) {
    EXPECT_EQ(0x00980900u, GetVideoCtrlId(0)) << "brightness";
    EXPECT_EQ(0x00980901u, GetVideoCtrlId(1)) << "contrast";
    EXPECT_EQ(0x00980903u, GetVideoCtrlId(2)) << "hue";
    EXPECT_EQ(0x00980902u, GetVideoCtrlId(3)) << "saturation";
    EXPECT_EQ(0u, GetVideoCtrlId(4));
    EXPECT_EQ(0u, GetVideoCtrlId(0xFFFFFFFF));
}

// ---- picture controls

class V4l2ControlTest : public V4l2QueryTest {
  protected:
    V4l2ControlTest() {
        v4l2_queryctrl hue{};
        hue.id = V4L2_CID_HUE;
        hue.minimum = -180;
        hue.maximum = 180;
        hue.default_value = 7;
        v4l2.device.controls[V4L2_CID_HUE] = hue;
        EXPECT_EQ(0, VideoCaptureV4L2Open(kNode, Code("YUYV"), 64, 64, 1, 30, &capture));
    }
    ~V4l2ControlTest() override { VideoCaptureV4L2Close(capture); }
    VideoCaptureV4L2Context* capture = nullptr;
};

TEST_F(V4l2ControlTest, AControlIsSetAndReadBack) {
    EXPECT_EQ(0, SetVideoProcParamV4L2(capture, QV_VIDEO_PROC_HUE, -42));
    int minimum = 0, maximum = 0, defaultValue = 0, current = 0;
    EXPECT_EQ(0, GetVideoProcParamV4L2(capture, QV_VIDEO_PROC_HUE, &minimum, &maximum,
                                       &defaultValue, &current));
    EXPECT_EQ(-180, minimum);
    EXPECT_EQ(180, maximum);
    EXPECT_EQ(7, defaultValue);
    EXPECT_EQ(-42, current);
    EXPECT_THAT(v4l2.CallsOf("S_CTRL"), ElementsAre("S_CTRL(ioctl)"));
}

TEST_F(V4l2ControlTest, EveryOutputMayBeLeftOut) {
    EXPECT_EQ(
        0, GetVideoProcParamV4L2(capture, QV_VIDEO_PROC_HUE, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, v4l2.Count("G_CTRL"));
}

TEST_F(V4l2ControlTest, RefusedControlCallsFail) {
    int current = 77;
    EXPECT_EQ(-1, SetVideoProcParamV4L2(capture, QV_VIDEO_PROC_CONTRAST, 1)) << "not there";
    EXPECT_EQ(-1, SetVideoProcParamV4L2(capture, 4, 1)) << "no such control";
    v4l2.Refuse("QUERYCTRL", EIO);
    EXPECT_EQ(
        -1, GetVideoProcParamV4L2(capture, QV_VIDEO_PROC_HUE, nullptr, nullptr, nullptr, &current));
    v4l2.Refuse("G_CTRL", EIO);
    EXPECT_EQ(
        -1, GetVideoProcParamV4L2(capture, QV_VIDEO_PROC_HUE, nullptr, nullptr, nullptr, &current));
    EXPECT_EQ(77, current);
}

TEST_F(V4l2ControlTest, ControlsNeedAnOpenContext) {
    VideoCaptureV4L2Context closed{};
    v4l2.descriptors[0] = kNode;  // even if a node answered there
    for (const int fd : {-1, 0}) {
        closed.fd = fd;
        EXPECT_EQ(-1, SetVideoProcParamV4L2(&closed, QV_VIDEO_PROC_HUE, 1));
        EXPECT_EQ(-1, GetVideoProcParamV4L2(&closed, QV_VIDEO_PROC_HUE, nullptr, nullptr, nullptr,
                                            nullptr));
    }
    v4l2.descriptors.erase(0);
    EXPECT_EQ(-1, SetVideoProcParamV4L2(nullptr, QV_VIDEO_PROC_HUE, 1));
    EXPECT_EQ(
        -1, GetVideoProcParamV4L2(nullptr, QV_VIDEO_PROC_HUE, nullptr, nullptr, nullptr, nullptr));
}

// ---- colour formats

TEST_F(V4l2QueryTest, FormatsAreReportedAsLibraryCodes) {
    unsigned fourccs[4] = {};
    int count = 4;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kNode, fourccs, &count));
    EXPECT_EQ(2, count);
    EXPECT_EQ(Code("YUYV"), fourccs[0]);
    EXPECT_EQ(Code("I420"), fourccs[1]);
    EXPECT_EQ(0u, fourccs[2]);
    EXPECT_THAT(v4l2.Calls(),
                ElementsAre("v4l2_open(/dev/video3, rdwr|nonblock)", "ENUM_FMT(ioctl)",
                            "ENUM_FMT(ioctl)", "ENUM_FMT(ioctl)", "v4l2_close()"));
}

TEST_F(V4l2QueryTest, ASmallArrayIsFilledAndTheCountTellsWhatWasStored) {
    unsigned fourccs[2] = {0, 0xCCCCCCCC};
    int count = 1;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kNode, fourccs, &count));
    EXPECT_EQ(1, count);
    EXPECT_EQ(0xCCCCCCCC, fourccs[1]);
}

TEST_F(V4l2QueryTest, WithoutArrayOrWithoutCapacityTheCountTellsAllFormats) {
    unsigned fourccs[1] = {0xCCCCCCCC};
    int count = 0;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kNode, fourccs, &count));
    EXPECT_EQ(2, count);
    EXPECT_EQ(0xCCCCCCCC, fourccs[0]);
    count = 1;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kNode, nullptr, &count));
    EXPECT_EQ(2, count);
}

TEST_F(V4l2QueryTest, ANegativeCapacityStoresNothing) {
    unsigned fourccs[1] = {0xCCCCCCCC};
    int count = -1;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kNode, fourccs, &count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(0xCCCCCCCC, fourccs[0]);
}

TEST_F(V4l2QueryTest, AFormatWithoutCodeIsNotCounted) {
    v4l2.device.formats = {0, Code("YUYV")};
    int count = 0;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kNode, nullptr, &count));
    EXPECT_EQ(1, count);
}

TEST_F(V4l2QueryTest, FormatQueriesThatFindNothingFail) {
    int count = 5;
    EXPECT_EQ(-1, GetVideoCaptureSupportColorFormatV4L2(kNode, nullptr, nullptr));
    EXPECT_EQ(-1, GetVideoCaptureSupportColorFormatV4L2(nullptr, nullptr, &count));
    EXPECT_EQ(-1, GetVideoCaptureSupportColorFormatV4L2("/dev/video8", nullptr, &count));
    EXPECT_EQ(5, count);
    v4l2.device.formats.clear();
    EXPECT_EQ(-1, GetVideoCaptureSupportColorFormatV4L2(kNode, nullptr, &count));
    EXPECT_EQ(0, count);
}

TEST_F(V4l2QueryTest, AListThatNeverEndsIsCutOff) {
    v4l2.device.endless = true;
    v4l2.device.sizes = {Discrete(64, 64)};
    v4l2.device.intervals = {Interval(1, 30)};
    int count = 0;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kNode, nullptr, &count));
    EXPECT_EQ(4096, count);
    EXPECT_EQ(0, GetVideoCaptureSupportResolutionV4L2(kNode, nullptr, &count, nullptr, nullptr));
    EXPECT_EQ(4096, count);
    count = 0;
    EXPECT_EQ(0, GetVideoCaptureSupportFrameRateV4L2(kNode, nullptr, nullptr, &count));
    EXPECT_EQ(4096, count);
}

// ---- frame sizes

TEST_F(V4l2QueryTest, ThreeSizesInAListOfTwoAreAllCounted) {
    v4l2.device.sizes = {Discrete(640, 480), Discrete(1280, 720), Discrete(1920, 1080)};
    _QVCAP_VIDEO_RESOLUTION sizes[3] = {{}, {}, {0xCC, 0xCC}};
    _QVCAP_VIDEO_RESOLUTION_LIST list{2, sizes};
    int mode = -1, count = -1;
    EXPECT_EQ(0, GetVideoCaptureSupportResolutionV4L2(kNode, &mode, &count, nullptr, &list));
    EXPECT_EQ(1, mode);
    EXPECT_EQ(3, count);
    EXPECT_EQ(2u, list.count);
    EXPECT_EQ(1280u, sizes[1].width);
    EXPECT_EQ(720u, sizes[1].height);
    EXPECT_EQ(0xCCu, sizes[2].width);
    EXPECT_EQ(Code("YUYV"), v4l2.askedSize.pixel_format) << "only the first format is examined";
}

TEST_F(V4l2QueryTest, AListWithoutArrayIsLeftAsItIs) {
    v4l2.device.sizes = {Discrete(640, 480)};
    _QVCAP_VIDEO_RESOLUTION_LIST list{9, nullptr};
    EXPECT_EQ(0, GetVideoCaptureSupportResolutionV4L2(kNode, nullptr, nullptr, nullptr, &list));
    EXPECT_EQ(9u, list.count);
}

TEST_F(V4l2QueryTest, StepwiseSizesGiveTheRangeInItsFixedOrder) {
    v4l2.device.sizes = {Stepwise(V4L2_FRMSIZE_TYPE_STEPWISE)};
    _QVCAP_VIDEO_RESOLUTION_RANGE range{};
    int mode = -1, count = -1;
    EXPECT_EQ(0, GetVideoCaptureSupportResolutionV4L2(kNode, &mode, &count, &range, nullptr));
    EXPECT_EQ(0, mode);
    EXPECT_EQ(-1, count);
    const uint32_t expected[6] = {16, 8, 64, 32, 4096, 2160};
    static_assert(sizeof expected == sizeof range);
    EXPECT_EQ(0, memcmp(expected, &range, sizeof range));
}

TEST_F(V4l2QueryTest, ContinuousSizesHaveStepsOfOne) {
    v4l2.device.sizes = {Stepwise(V4L2_FRMSIZE_TYPE_CONTINUOUS)};
    _QVCAP_VIDEO_RESOLUTION_RANGE range{};
    EXPECT_EQ(0, GetVideoCaptureSupportResolutionV4L2(kNode, nullptr, nullptr, &range, nullptr));
    const uint32_t expected[6] = {1, 1, 64, 32, 4096, 2160};
    EXPECT_EQ(0, memcmp(expected, &range, sizeof range));
}

TEST_F(V4l2QueryTest, WithoutRangeRecordOnlyTheModeIsTold) {
    v4l2.device.sizes = {Stepwise(V4L2_FRMSIZE_TYPE_STEPWISE)};
    int mode = -1;
    EXPECT_EQ(0, GetVideoCaptureSupportResolutionV4L2(kNode, &mode, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, mode);
}

TEST_F(V4l2QueryTest, SizesOfAnUnknownKindFail) {
    v4l2.device.sizes = {Discrete(64, 64), Stepwise(99)};
    int mode = -1, count = -1;
    EXPECT_EQ(-1, GetVideoCaptureSupportResolutionV4L2(kNode, &mode, &count, nullptr, nullptr));
    EXPECT_EQ(-1, mode);
    EXPECT_EQ(-1, count);
}

TEST_F(V4l2QueryTest, SizeQueriesThatFindNothingFail) {
    int mode = -1;
    EXPECT_EQ(-1, GetVideoCaptureSupportResolutionV4L2(nullptr, &mode, nullptr, nullptr, nullptr));
    EXPECT_EQ(
        -1, GetVideoCaptureSupportResolutionV4L2("/dev/video8", &mode, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, GetVideoCaptureSupportResolutionV4L2(kNode, &mode, nullptr, nullptr, nullptr))
        << "no sizes";
    v4l2.device.sizes = {Discrete(64, 64)};
    v4l2.device.formats.clear();
    EXPECT_EQ(-1, GetVideoCaptureSupportResolutionV4L2(kNode, &mode, nullptr, nullptr, nullptr))
        << "no format";
    EXPECT_EQ(-1, mode);
}

// ---- frame rates

TEST_F(V4l2QueryTest, AThirtiethOfASecondIs333333UnitsAnd30FramesPerSecond) {
    v4l2.device.sizes = {Discrete(640, 480), Discrete(64, 64)};
    v4l2.device.intervals = {Interval(1, 30), Interval(1001, 60000)};
    VideoFrameRate rates[3] = {};
    int count = 3;
    EXPECT_EQ(0, GetVideoCaptureSupportFrameRateV4L2(kNode, rates, nullptr, &count));
    EXPECT_EQ(2, count);
    EXPECT_EQ(333333u, rates[0].frameDuration);
    EXPECT_FLOAT_EQ(30.0f, rates[0].framesPerSecond);
    EXPECT_EQ(1001u * 10000000u / 60000u, rates[1].frameDuration) << "the product wraps at 32 bits";
    EXPECT_FLOAT_EQ(59.94006f, rates[1].framesPerSecond);
    EXPECT_EQ(640u, v4l2.askedInterval.width);
    EXPECT_EQ(480u, v4l2.askedInterval.height);
}

TEST_F(V4l2QueryTest, FractionsAreDenominatorThenNumerator) {
    v4l2.device.sizes = {Stepwise(V4L2_FRMSIZE_TYPE_STEPWISE)};
    v4l2.device.intervals = {Interval(1001, 30000)};
    VideoFrameFraction fractions[1] = {};
    int count = 1;
    EXPECT_EQ(0, GetVideoCaptureSupportFrameRateV4L2(kNode, nullptr, fractions, &count));
    EXPECT_EQ(1, count);
    EXPECT_EQ(30000u, fractions[0].denominator);
    EXPECT_EQ(1001u, fractions[0].numerator);
    EXPECT_EQ(4096u, v4l2.askedInterval.width) << "the largest of a range";
    EXPECT_EQ(2160u, v4l2.askedInterval.height);
}

TEST_F(V4l2QueryTest, WhenBothArraysAreGivenOnlyTheFirstIsFilled) {
    v4l2.device.sizes = {Stepwise(V4L2_FRMSIZE_TYPE_CONTINUOUS)};
    v4l2.device.intervals = {Interval(1, 30), Interval(1, 25)};
    VideoFrameRate rates[1] = {};
    VideoFrameFraction fractions[1] = {{0xCC, 0xCC}};
    int count = 1;
    EXPECT_EQ(0, GetVideoCaptureSupportFrameRateV4L2(kNode, rates, fractions, &count));
    EXPECT_EQ(1, count);
    EXPECT_EQ(0xCCu, fractions[0].denominator);
}

TEST_F(V4l2QueryTest, WithoutCapacityTheCountTellsAllRates) {
    v4l2.device.sizes = {Discrete(640, 480)};
    v4l2.device.intervals = {Interval(1, 30), Interval(1, 25)};
    VideoFrameRate rates[1] = {};
    int count = 0;
    EXPECT_EQ(0, GetVideoCaptureSupportFrameRateV4L2(kNode, rates, nullptr, &count));
    EXPECT_EQ(2, count);
    count = 1;
    EXPECT_EQ(0, GetVideoCaptureSupportFrameRateV4L2(kNode, nullptr, nullptr, &count));
    EXPECT_EQ(2, count);
}

TEST_F(V4l2QueryTest, AnIntervalWithATermOfZeroIsSkipped) {
    v4l2.device.sizes = {Discrete(640, 480)};
    v4l2.device.intervals = {Interval(0, 30), Interval(1, 0), Interval(1, 25)};
    VideoFrameRate rates[3] = {};
    int count = 3;
    EXPECT_EQ(0, GetVideoCaptureSupportFrameRateV4L2(kNode, rates, nullptr, &count));
    EXPECT_EQ(1, count);
    EXPECT_EQ(400000u, rates[0].frameDuration);
}

TEST_F(V4l2QueryTest, RateQueriesThatFindNothingFail) {
    v4l2.device.sizes = {Discrete(640, 480)};
    int count = 5;
    EXPECT_EQ(-1, GetVideoCaptureSupportFrameRateV4L2(nullptr, nullptr, nullptr, &count));
    EXPECT_EQ(-1, GetVideoCaptureSupportFrameRateV4L2(kNode, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, GetVideoCaptureSupportFrameRateV4L2("/dev/video8", nullptr, nullptr, &count));
    v4l2_frmivalenum stepwise{};
    stepwise.type = V4L2_FRMIVAL_TYPE_STEPWISE;
    v4l2.device.intervals = {Interval(1, 30), stepwise};
    EXPECT_EQ(-1, GetVideoCaptureSupportFrameRateV4L2(kNode, nullptr, nullptr, &count));
    v4l2.device.sizes = {Stepwise(99)};
    EXPECT_EQ(-1, GetVideoCaptureSupportFrameRateV4L2(kNode, nullptr, nullptr, &count));
    v4l2.device.sizes.clear();
    EXPECT_EQ(-1, GetVideoCaptureSupportFrameRateV4L2(kNode, nullptr, nullptr, &count));
    v4l2.device.formats.clear();
    EXPECT_EQ(-1, GetVideoCaptureSupportFrameRateV4L2(kNode, nullptr, nullptr, &count));
    EXPECT_EQ(5, count);
}

// ---- node look-up

class V4l2LookupTest : public testing::Test {
  protected:
    V4l2LookupTest() { v4l2.Reset(); }
    ~V4l2LookupTest() override {
        EXPECT_EQ(0, v4l2.Descriptors()) << "a node was left open";
        v4l2.Reset();
    }
    static std::string Device(const std::string& usb, int number) {
        return "../../devices/pci0/" + usb + "/1-1/1-1:1.0/video4linux/video" +
               std::to_string(number);
    }
    char path[512] = "untouched";
    V4l2& v4l2 = V4l2::Get();
};

TEST_F(V4l2LookupTest, TheFirstNodeOnTheBusIsFoundByTheThirdCharacterOfTheBusLine) {
    v4l2.AddNode(0, "../../devices/pci0/0000:01:00.0/video4linux/video0");
    v4l2.AddNode(1, Device("usb2", 1));
    v4l2.AddNode(2, Device("usb1", 2));
    v4l2.AddNode(3, Device("usb1", 3));
    EXPECT_EQ(0, GetUSBCaptureVideoPath("001/004", path));
    EXPECT_STREQ("/dev/video2", path);
    EXPECT_EQ(0, GetUSBCaptureVideoPath("002/004", path));
    EXPECT_STREQ("/dev/video1", path);
    EXPECT_EQ(-1, GetUSBCaptureVideoPath("003/004", path));
    EXPECT_EQ("open(/dev/video0, rdwr)", v4l2.Calls().at(0));
}

TEST_F(V4l2LookupTest, NodesUpTo31BeyondTheChannelsAreTried) {
    v4l2.AddNode(31, Device("usb1", 31));
    EXPECT_EQ(0, GetUSBCaptureVideoPath("001/004", path));
    v4l2.Reset();
    v4l2.AddNode(32, Device("usb1", 32));
    EXPECT_EQ(-1, GetUSBCaptureVideoPath("001/004", path));
    EXPECT_EQ(32, v4l2.Count("open")) << "0 to 31, with no channel listed";
}

TEST_F(V4l2LookupTest, ALinkLongerThanTheBufferIsSearchedAsFarAsItWasRead) {
    v4l2.AddNode(0, "../../" + std::string(150, 'x') + "/" + std::string(150, 'y') + "/usb1/d/e/f");
    EXPECT_EQ(-1, GetUSBCaptureVideoPath("001/004", path));
    EXPECT_STREQ("untouched", path);
}

TEST_F(V4l2LookupTest, ABusLineThatIsTooShortFindsNothing) {
    v4l2.AddNode(0, "../../devices/a/b/usb");
    EXPECT_EQ(-1, GetUSBCaptureVideoPath(nullptr, path));
    EXPECT_EQ(-1, GetUSBCaptureVideoPath("001/004", nullptr));
    EXPECT_EQ(-1, GetUSBCaptureVideoPath("", path));
    EXPECT_EQ(-1, GetUSBCaptureVideoPath("00", path));
    EXPECT_STREQ("untouched", path);
}

TEST_F(V4l2LookupTest, TheCaptureNodeOfADeviceIsFoundByItsSerialNumber) {
    v4l2.AddNode(0, "../../devices/pci0/usb1/1-1/1-1:1.0/video4linux/video0", "OTHER\n");
    v4l2.AddNode(4, "../../devices/pci0/usb1/1-2/1-2:1.0/video4linux/video4", "TV0012345\n");
    v4l2.AddNode(5, "../../devices/pci0/usb1/1-2/1-2:1.0/video4linux/video5");
    v4l2.NodeHasOwnCapabilities(4, V4L2_CAP_META_CAPTURE);
    v4l2.NodeHasOwnCapabilities(5, V4L2_CAP_VIDEO_CAPTURE);
    EXPECT_EQ(0, GetUSBCaptureVideoPathbySerial("TV0012345", path));
    EXPECT_STREQ("/dev/video5", path);
    EXPECT_EQ(0, GetUSBCaptureVideoPathbySerial("OTHER", path));
    EXPECT_STREQ("/dev/video0", path);
}

TEST_F(V4l2LookupTest, ASerialNumberThatNobodyHasLeavesTheBufferUntouched) {
    v4l2.AddNode(0, "../../devices/pci0/usb1/1-1/1-1:1.0/video4linux/video0", "TV0012345\n");
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial("TV001234", path));
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial("TV00123456", path));
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial("", path));
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial(nullptr, path));
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial("TV0012345", nullptr));
    v4l2.Refuse("open", EACCES);
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial("TV0012345", path));
    v4l2.Refuse("QUERYCAP", EIO);
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial("TV0012345", path));
    EXPECT_STREQ("untouched", path);
}

}  // namespace
