// V4L2 nodes of a real kernel: two USB cameras, and what the kernel's test nodes answer; what those
// stream is in TestNodeTest.cpp.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "QVCapture.h"
#include "VideoCaptureV4l2.h"
#include "lab/LabDevices.h"
#include "lab/LabFrames.h"
#include "lab/LabVideo.h"

using lab::Code;
using lab::Frames;
using lab::kListNode;
using lab::kRangeNode;
using lab::kVga;
using lab::LabDevices;
using lab::LabVideoTest;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

LabDevices& Devices() { return LabDevices::Get(); }
const char* Camera(const char* serial) { return Devices()[serial].nodes.at(0).c_str(); }

// ---- finding nodes

TEST_F(LabVideoTest, ACamerasNodeIsFoundByItsSerialNumber) {
    char path[32] = "-";
    EXPECT_EQ(0, GetUSBCaptureVideoPathbySerial(lab::kHdmi, path));
    EXPECT_STREQ(Camera(lab::kHdmi), path);
    EXPECT_EQ(0, GetUSBCaptureVideoPathbySerial(lab::kSdi, path));
    EXPECT_STREQ(Camera(lab::kSdi), path);
    strcpy(path, "-");
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial("TV001234", path)) << "a part of it";
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial(lab::kDvi, path)) << "a sound card alone";
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial("", path));
    EXPECT_STREQ("-", path);
}

TEST_F(LabVideoTest, ACamerasNodeIsFoundByItsBus) {
    char path[32] = "-";
    EXPECT_EQ(0, GetUSBCaptureVideoPath(Devices()[lab::kHdmi].bus.c_str(), path));
    EXPECT_STREQ(Camera(lab::kHdmi), path);
    EXPECT_EQ(0, GetUSBCaptureVideoPath(Devices()[lab::kSdi].bus.c_str(), path));
    EXPECT_STREQ(Camera(lab::kSdi), path);
    strcpy(path, "-");
    EXPECT_EQ(-1, GetUSBCaptureVideoPath("009/001", path));
    EXPECT_STREQ("-", path);
}

TEST_F(LabVideoTest, AChannelsPathIsThatOfItsCamera) {
    char path[512];
    const Channel hdmi = Usb(lab::kHdmi);
    EXPECT_EQ(QV_RESULT_OK, GetDevicePathByChannel(hdmi.get(), path));
    EXPECT_STREQ(Camera(lab::kHdmi), path);
    const Channel sdi = Usb(lab::kSdi);
    EXPECT_EQ(QV_RESULT_OK, GetDevicePathByChannel(sdi.get(), path));
    EXPECT_STREQ(Camera(lab::kSdi), path);
    const Channel dvi = Usb(lab::kDvi);
    EXPECT_EQ(QV_RESULT_FAILED, GetDevicePathByChannel(dvi.get(), path));
    EXPECT_STREQ("", path);
}

// ---- queries

TEST_F(LabVideoTest, FormatsAreReportedAsLibraryCodes) {
    unsigned codes[128] = {};
    int count = 128;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(Camera(lab::kHdmi), codes, &count));
    EXPECT_EQ(1, count);
    EXPECT_EQ(Code("YUYV"), codes[0]) << "reported as it is, not as YUY2";

    count = 0;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kListNode, nullptr, &count));
    ASSERT_GT(count, 40);
    const int all = count;
    count = 128;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kListNode, codes, &count));
    EXPECT_EQ(all, count);
    EXPECT_EQ(Code("YUYV"), codes[0]);
    const std::vector<unsigned> found(codes, codes + count);
    for (const unsigned code : {Code("I420"), Code("BGR "), Code("RGB "), Code("BGRA"),
                                Code("ARGB"), Code("I422"), Code("RGB5"), Code("RGB6")})
        EXPECT_THAT(found, testing::Contains(code)) << std::hex << code;
    for (const unsigned code : {Code("YU12"), Code("BGR3"), Code("422P"), Code("RGBO")})
        EXPECT_THAT(found, testing::Not(testing::Contains(code))) << std::hex << code;
    count = 3;
    EXPECT_EQ(0, GetVideoCaptureSupportColorFormatV4L2(kListNode, codes, &count));
    EXPECT_EQ(3, count);
}

struct Sizes {
    int result = 0;
    int mode = -1;
    int count = -1;
    std::vector<std::pair<unsigned, unsigned>> list;
    _QVCAP_VIDEO_RESOLUTION_RANGE range{9, 9, 9, 9, 9, 9};
};

Sizes SizesOf(const char* node, unsigned capacity) {
    Sizes sizes;
    std::vector<_QVCAP_VIDEO_RESOLUTION> room(capacity + 1, {77, 77});
    _QVCAP_VIDEO_RESOLUTION_LIST list{capacity, room.data()};
    sizes.result =
        GetVideoCaptureSupportResolutionV4L2(node, &sizes.mode, &sizes.count, &sizes.range, &list);
    EXPECT_LE(list.count, capacity);
    EXPECT_EQ(77u, room[list.count].width) << "nothing behind what was stored";
    for (unsigned i = 0; i < list.count; ++i)
        sizes.list.emplace_back(room[i].width, room[i].height);
    return sizes;
}

TEST_F(LabVideoTest, SizesOfACameraAreAList) {
    Sizes sizes = SizesOf(Camera(lab::kHdmi), 10);
    EXPECT_EQ(0, sizes.result);
    EXPECT_EQ(QV_RESOLUTION_MODE_LIST, sizes.mode);
    EXPECT_EQ(3, sizes.count);
    EXPECT_THAT(sizes.list,
                ElementsAre(std::pair(640u, 360u), std::pair(1280u, 720u), std::pair(320u, 180u)));
    EXPECT_EQ(9u, sizes.range.maxWidth) << "untouched";
    sizes = SizesOf(Camera(lab::kHdmi), 2);
    EXPECT_EQ(3, sizes.count) << "all of them";
    EXPECT_THAT(sizes.list, ElementsAre(std::pair(640u, 360u), std::pair(1280u, 720u)));

    sizes = SizesOf(kListNode, 10);
    EXPECT_EQ(QV_RESOLUTION_MODE_LIST, sizes.mode);
    EXPECT_THAT(sizes.list, ElementsAre(std::pair(320u, 180u), std::pair(640u, 360u),
                                        std::pair(640u, 480u), std::pair(1280u, 720u),
                                        std::pair(1920u, 1080u), std::pair(3840u, 2160u)));
}

TEST_F(LabVideoTest, SizesOfARangeAreItsEndsAndSteps) {
    const Sizes sizes = SizesOf(kRangeNode, 10);
    EXPECT_EQ(0, sizes.result);
    EXPECT_EQ(QV_RESOLUTION_MODE_RANGE, sizes.mode);
    EXPECT_EQ(-1, sizes.count) << "untouched";
    EXPECT_TRUE(sizes.list.empty());
    EXPECT_EQ(2u, sizes.range.widthStep);
    EXPECT_EQ(2u, sizes.range.heightStep);
    EXPECT_EQ(16u, sizes.range.minWidth);
    EXPECT_EQ(16u, sizes.range.minHeight);
    EXPECT_EQ(16384u, sizes.range.maxWidth);
    EXPECT_EQ(8640u, sizes.range.maxHeight);
}

TEST_F(LabVideoTest, RatesAreThoseOfTheFirstSize) {
    VideoFrameRate rates[8] = {};
    int count = 8;
    EXPECT_EQ(0, GetVideoCaptureSupportFrameRateV4L2(Camera(lab::kHdmi), rates, nullptr, &count));
    ASSERT_EQ(3, count);
    const unsigned durations[] = {166666, 333333, 666666};
    const float perSecond[] = {60, 30, 15};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(durations[i], rates[i].frameDuration);
        EXPECT_EQ(perSecond[i], rates[i].framesPerSecond);
    }
    VideoFrameFraction fractions[2] = {};
    count = 2;
    EXPECT_EQ(0,
              GetVideoCaptureSupportFrameRateV4L2(Camera(lab::kHdmi), nullptr, fractions, &count));
    EXPECT_EQ(2, count);
    EXPECT_EQ(60u, fractions[0].denominator);
    EXPECT_EQ(1u, fractions[0].numerator);
    EXPECT_EQ(30u, fractions[1].denominator);
    count = 8;
    EXPECT_EQ(0, GetVideoCaptureSupportFrameRateV4L2(kRangeNode, nullptr, fractions, &count));
    EXPECT_EQ(1, count);
    EXPECT_EQ(60u, fractions[0].denominator / fractions[0].numerator);
}

TEST_F(LabVideoTest, QueriesOfAChannelAreThoseOfItsNode) {
    const Channel channel = Usb(lab::kSdi);
    unsigned codes[4] = {};
    int count = 4;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoCaptureSupportColorFormat(channel.get(), codes, &count));
    EXPECT_EQ(1, count);
    int mode = -1;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoCaptureSupportResolutionMode(channel.get(), &mode));
    EXPECT_EQ(QV_RESOLUTION_MODE_LIST, mode);
    _QVCAP_VIDEO_RESOLUTION sizes[2] = {};
    _QVCAP_VIDEO_RESOLUTION_LIST list{2, sizes};
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoCaptureSupportListResolution(channel.get(), &list, &count));
    EXPECT_EQ(2u, list.count);
    EXPECT_EQ(3, count);
    EXPECT_EQ(640u, sizes[0].width);
    const Channel sound = Usb(lab::kAio);
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoCaptureSupportResolutionMode(sound.get(), &mode));
}

// ---- streaming

QV_VIDEO_CAPTURE Capture(QV_CHANNEL channel, int width, int height, unsigned fourcc, int duration,
                         Frames* frames) {
    return QVCreateVideoCapture(channel, width, height, fourcc, duration, Frames::OnFrame, frames);
}

TEST_F(LabVideoTest, FramesOfACameraAreWholeAndInOrder) {
    const Channel channel = Usb(lab::kHdmi);
    Frames frames(640 * 2);
    QV_VIDEO_CAPTURE capture = Capture(channel.get(), 640, 360, Code("YUY2"), 333333, &frames);
    ASSERT_NE(nullptr, capture);
    EXPECT_TRUE(frames.AwaitMore(40));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
    EXPECT_THAT(frames.Lengths(), Each(kVga * 2));
    EXPECT_EQ("", frames.Wrong());
}

TEST_F(LabVideoTest, OtherSizesAndASecondCaptureOfTheSameCamera) {
    const Channel channel = Usb(lab::kHdmi);
    for (const auto& [width, height] : {std::pair(1280, 720), std::pair(320, 180)}) {
        SCOPED_TRACE(width);
        Frames frames(static_cast<size_t>(width) * 2);
        QV_VIDEO_CAPTURE capture =
            Capture(channel.get(), width, height, Code("YUYV"), 333333, &frames);
        ASSERT_NE(nullptr, capture);
        EXPECT_TRUE(frames.AwaitMore(8));
        EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
        EXPECT_THAT(frames.Lengths(), Each(static_cast<unsigned>(width * height * 2)));
        EXPECT_EQ("", frames.Wrong());
    }
}

TEST_F(LabVideoTest, OtherFormatsAreConverted) {
    const Channel channel = Usb(lab::kHdmi);
    const struct {
        unsigned fourcc;
        unsigned bytes;
    } rows[] = {{Code("I420"), kVga * 3 / 2}, {Code("BGR "), kVga * 3}};
    for (const auto& row : rows) {
        Frames frames;
        QV_VIDEO_CAPTURE capture = Capture(channel.get(), 640, 360, row.fourcc, 333333, &frames);
        ASSERT_NE(nullptr, capture);
        EXPECT_TRUE(frames.AwaitMore(5));
        EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
        EXPECT_THAT(frames.Lengths(), Each(row.bytes));
    }
    // The brightness of the first pixels of a line is in the low and third byte of the number.
    Frames frames;
    QV_VIDEO_CAPTURE capture = Capture(channel.get(), 640, 360, Code("I420"), 333333, &frames);
    ASSERT_NE(nullptr, capture);
    EXPECT_TRUE(frames.AwaitMore(3));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
    const std::vector<unsigned char> last = frames.Last();
    for (size_t line = 0; line < 360; ++line) {
        ASSERT_EQ(last[0], last[640 * line]) << line;
        ASSERT_EQ(last[1], last[640 * line + 1]) << line;
        ASSERT_EQ(static_cast<unsigned char>(last[0] + line), last[640 * line + 2]) << line;
    }
}

v4l2_fract IntervalOf(QV_VIDEO_CAPTURE capture) {
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(0, ioctl(static_cast<VideoCaptureV4L2Context*>(capture)->fd, VIDIOC_G_PARM, &parm));
    return parm.parm.capture.timeperframe;
}

TEST_F(LabVideoTest, TheFrameDurationReachesTheCamera) {
    const Channel channel = Usb(lab::kHdmi);
    for (const auto& [duration, perSecond] :
         {std::pair(166666, 60u), std::pair(666666, 15u), std::pair(333333, 30u)}) {
        Frames frames;
        QV_VIDEO_CAPTURE capture =
            Capture(channel.get(), 640, 360, Code("YUY2"), duration, &frames);
        ASSERT_NE(nullptr, capture);
        const v4l2_fract interval = IntervalOf(capture);
        EXPECT_EQ(perSecond, interval.denominator / interval.numerator);
        EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
    }
}

TEST_F(LabVideoTest, TwoCamerasStreamAtOnce) {
    const Channel one = Usb(lab::kHdmi);
    Frames first(320 * 2);
    QV_VIDEO_CAPTURE left = Capture(one.get(), 320, 180, Code("YUY2"), 333333, &first);
    ASSERT_NE(nullptr, left);
    VideoCaptureV4L2Context* right = nullptr;
    Frames second(320 * 2);
    ASSERT_EQ(0, VideoCaptureV4L2Open(Camera(lab::kSdi), Code("YUYV"), 320, 180, 1, 30, &right));
    VideoCaptureV4L2SetCallback(right, Frames::OnFrame, &second);
    ASSERT_EQ(0, VideoCaptureV4L2Start(right));
    EXPECT_TRUE(first.AwaitMore(20));
    EXPECT_TRUE(second.AwaitMore(20));
    VideoCaptureV4L2Close(right);
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(left));
    EXPECT_EQ("", first.Wrong());
    EXPECT_EQ("", second.Wrong());
}

TEST_F(LabVideoTest, NodesThatCannotStreamAreRefused) {
    VideoCaptureV4L2Context* capture = nullptr;
    const std::string metadata = Devices()[lab::kHdmi].nodes.at(1);
    EXPECT_EQ(-1, VideoCaptureV4L2Open(metadata.c_str(), Code("YUYV"), 640, 360, 1, 30, &capture));
    EXPECT_EQ(-1, VideoCaptureV4L2Open("/dev/null", Code("YUYV"), 640, 360, 1, 30, &capture));
    EXPECT_EQ(-1, VideoCaptureV4L2Open("/dev/video99", Code("YUYV"), 640, 360, 1, 30, &capture));
    EXPECT_EQ(nullptr, capture);
    // A camera that streams for one cannot be started by another.
    const Channel channel = Usb(lab::kHdmi);
    Frames frames;
    QV_VIDEO_CAPTURE first = Capture(channel.get(), 320, 180, Code("YUY2"), 333333, &frames);
    ASSERT_NE(nullptr, first);
    EXPECT_TRUE(frames.AwaitMore(2));
    EXPECT_EQ(-1,
              VideoCaptureV4L2Open(Camera(lab::kHdmi), Code("YUYV"), 640, 360, 1, 30, &capture));
    EXPECT_TRUE(frames.AwaitMore(2)) << "which goes on";
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(first));
}

TEST_F(LabVideoTest, ACaptureThatIsDestroyedByItsOwnCallbackEnds) {
    struct Own {
        QV_VIDEO_CAPTURE capture = nullptr;
        std::mutex created;
        std::atomic<bool> destroyed{false};
    } own;
    const Channel channel = Usb(lab::kHdmi);
    {
        const std::lock_guard lock(own.created);
        own.capture = QVCreateVideoCapture(
            channel.get(), 320, 180, Code("YUY2"), 333333,
            [](const unsigned char*, unsigned, void* param) {
                auto* self = static_cast<Own*>(param);
                const std::lock_guard inside(self->created);
                if (self->destroyed.exchange(true)) return;
                EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(self->capture));
            },
            &own);
        ASSERT_NE(nullptr, own.capture);
    }
    for (int tries = 0; tries < 600 && lab::DescriptorsOpen() != descriptors; ++tries)
        usleep(100000);
    EXPECT_TRUE(own.destroyed);
}

// ---- picture controls

TEST_F(LabVideoTest, PictureControlsAreTheCamerasOwn) {
    const Channel channel = Usb(lab::kHdmi);
    Frames frames;
    QV_VIDEO_CAPTURE capture = Capture(channel.get(), 320, 180, Code("YUY2"), 333333, &frames);
    ASSERT_NE(nullptr, capture);
    lab::ExpectControls(capture, Camera(lab::kHdmi),
                        {{QV_VIDEO_PROC_BRIGHTNESS, "brightness", -64, 64, 0, -33},
                         {QV_VIDEO_PROC_CONTRAST, "contrast", 0, 95, 32, 95},
                         {QV_VIDEO_PROC_HUE, "hue", -180, 180, 0, 180},
                         {QV_VIDEO_PROC_SATURATION, "saturation", 0, 128, 64, 1}});
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
}

// ---- pulled out

TEST_F(LabVideoTest, ACameraThatIsPulledOutEndsItsCaptureWithoutHarm) {
    Channel channel = Usb(lab::kSdi);
    const std::string node = Camera(lab::kSdi);
    Frames frames(640 * 2);
    QV_VIDEO_CAPTURE capture = Capture(channel.get(), 640, 360, Code("YUY2"), 333333, &frames);
    ASSERT_NE(nullptr, capture);
    EXPECT_TRUE(frames.AwaitMore(3));
    Devices().Unplug(lab::kSdi);
    char path[32] = "-";
    for (int tries = 0; tries < 600 && GetUSBCaptureVideoPathbySerial(lab::kSdi, path) == 0;
         ++tries)
        usleep(100000);
    EXPECT_NE(0, GetUSBCaptureVideoPathbySerial(lab::kSdi, path));
    const lab::Load load = lab::LoadOf("VideoCapture");
    EXPECT_LT(load.sleeps, 110) << "it asks a camera that is gone again and again";
    EXPECT_LT(load.busy, 0.9) << "it spins";
    const size_t before = frames.Lengths().size();
    int value = 0;
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoProcParam(capture, QV_VIDEO_PROC_HUE, &value));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
    EXPECT_EQ(before, frames.Lengths().size()) << "no frame comes from nowhere";
    EXPECT_EQ("", frames.Wrong());
    EXPECT_EQ(nullptr, Capture(channel.get(), 640, 360, Code("YUY2"), 333333, &frames));
    AwaitGone(node);

    channel.reset();  // of the device that has gone: who keeps it open shares it on
    Devices().Plug(lab::kSdi);
    const Channel again = Usb(lab::kSdi);
    Frames later(640 * 2);
    capture = Capture(again.get(), 640, 360, Code("YUY2"), 333333, &later);
    ASSERT_NE(nullptr, capture);
    EXPECT_TRUE(later.AwaitMore(3));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
    EXPECT_EQ("", later.Wrong());
}

}  // namespace
