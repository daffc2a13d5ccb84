// The kernel's test driver for V4L2: what it streams is known from v4l2-ctl, byte for byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "QVCapture.h"
#include "VideoCaptureV4l2.h"
#include "lab/LabFrames.h"
#include "lab/LabVideo.h"

using lab::Code;
using lab::Frames;
using lab::kListNode;
using lab::kRangeNode;
using lab::kVga;
using testing::Each;

namespace {

class TestNodeTest : public lab::LabVideoTest {};

using Picture = std::vector<unsigned char>;

void SetTestNode(const char* node, const std::string& control) {
    lab::Output(std::string("v4l2-ctl -d ") + node + " --set-ctrl=" + control);
}

// What v4l2-ctl captures of a test node, whose picture stands still and bears no text from then on.
Picture Still(const char* node, unsigned width, unsigned height, unsigned format) {
    constexpr char kFile[] = "/tmp/still.raw";
    SetTestNode(node, "osd_text_mode=2");
    std::filesystem::remove(kFile);
    lab::Output(std::string("v4l2-ctl -d ") + node + " --set-fmt-video=width=" +
                std::to_string(width) + ",height=" + std::to_string(height) + ",pixelformat=" +
                std::string(reinterpret_cast<const char*>(&format), sizeof format) +
                " --stream-mmap --stream-count=1 --stream-to=" + kFile + " 2>&1");
    std::ifstream file(kFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(TestNodeTest, ListedAndUnlistedSizesAreStreamedAsV4l2CtlSeesThem) {
    const struct {
        const char* node;
        unsigned width, height, format, bytes;
    } rows[] = {
        {kListNode, 640, 360, Code("YUYV"), kVga * 2},
        {kListNode, 640, 360, Code("YU12"), kVga * 3 / 2},
        // The larger one first: where that node draws in its frame shrinks with it, and never
        // grows.
        {kRangeNode, 640, 360, Code("BGR4"), kVga * 4},
        {kRangeNode, 96, 100, Code("BGR3"), 96 * 100 * 3},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.node << " " << row.width << "x" << row.height);
        const Picture still = Still(row.node, row.width, row.height, row.format);
        ASSERT_EQ(row.bytes, still.size());
        VideoCaptureV4L2Context* capture = nullptr;
        Frames frames([&](const Picture& frame) {
            return frame == still ? "" : "a frame is not the picture that v4l2-ctl has seen";
        });
        ASSERT_EQ(
            0, VideoCaptureV4L2Open(row.node, row.format, row.width, row.height, 1, 40, &capture));
        VideoCaptureV4L2SetCallback(capture, Frames::OnFrame, &frames);
        ASSERT_EQ(0, VideoCaptureV4L2Start(capture));
        EXPECT_TRUE(frames.AwaitMore(10));
        VideoCaptureV4L2Stop(capture);
        EXPECT_THAT(frames.Lengths(), Each(row.bytes));
        ASSERT_EQ(0, VideoCaptureV4L2Start(capture)) << "again, after a stop";
        EXPECT_TRUE(frames.AwaitMore(3));
        VideoCaptureV4L2Close(capture);
        EXPECT_EQ("", frames.Wrong());
    }
}

// The test driver moves its bars by one pair of pixels for every frame.
TEST_F(TestNodeTest, MovingFramesAreWholeAndInOrder) {
    constexpr size_t kLine = 640 * 2;
    constexpr size_t kPairs = kLine / 4;
    const Picture still = Still(kListNode, 640, 360, Code("YUYV"));
    ASSERT_EQ(kVga * 2, still.size());
    // Moved so far, or kPairs: it is not that picture at all.
    const auto moved = [&](const Picture& frame) {
        for (size_t pairs = 0; pairs < kPairs; ++pairs) {
            Picture line(still.begin(), still.begin() + kLine);
            std::rotate(line.begin(), line.end() - static_cast<std::ptrdiff_t>(4 * pairs),
                        line.end());
            if (std::equal(line.begin(), line.end(), frame.begin())) return pairs;
        }
        return kPairs;
    };
    ASSERT_EQ(0u, moved(still));
    std::vector<size_t> numbers;
    Frames frames([&](const Picture& frame) -> std::string {
        numbers.push_back(moved(frame));
        for (size_t line = kLine; line + kLine <= frame.size(); line += kLine)
            if (std::memcmp(frame.data(), frame.data() + line, kLine) != 0)
                return "a frame is torn at byte " + std::to_string(line);
        return "";
    });
    SetTestNode(kListNode, "horizontal_movement=4");
    VideoCaptureV4L2Context* capture = nullptr;
    ASSERT_EQ(0, VideoCaptureV4L2Open(kListNode, Code("YUYV"), 640, 360, 1, 40, &capture));
    VideoCaptureV4L2SetCallback(capture, Frames::OnFrame, &frames);
    ASSERT_EQ(0, VideoCaptureV4L2Start(capture));
    EXPECT_TRUE(frames.AwaitMore(30));
    VideoCaptureV4L2Close(capture);
    SetTestNode(kListNode, "horizontal_movement=3");
    EXPECT_EQ("", frames.Wrong());
    EXPECT_THAT(numbers, Each(testing::Lt(kPairs)));
    for (size_t i = 1; i < numbers.size(); ++i) {
        // Some may be missing: a slow machine has no buffer for them.
        const size_t on = (numbers[i] + kPairs - numbers[i - 1]) % kPairs;
        EXPECT_TRUE(on > 0 && on < kPairs / 2)
            << "frame " << numbers[i] << " comes behind " << numbers[i - 1];
    }
}

TEST_F(TestNodeTest, PictureControlsAreTheNodesOwnAndChangeItsPicture) {
    SetTestNode(kListNode, "osd_text_mode=2");
    VideoCaptureV4L2Context* capture = nullptr;
    ASSERT_EQ(0, VideoCaptureV4L2Open(kListNode, Code("YUYV"), 640, 360, 1, 40, &capture));
    lab::ExpectControls(capture, kListNode,
                        {{QV_VIDEO_PROC_BRIGHTNESS, "brightness", 0, 255, 128, 255},
                         {QV_VIDEO_PROC_CONTRAST, "contrast", 0, 255, 128, 0},
                         {QV_VIDEO_PROC_HUE, "hue", -128, 128, 0, -128},
                         {QV_VIDEO_PROC_SATURATION, "saturation", 0, 255, 128, 1}});
    std::vector<int> lumas;  // of the first pixel, which is of a bright bar
    for (const int brightness : {64, 128, 192}) {
        EXPECT_EQ(QV_RESULT_OK, QVSetVideoProcParam(capture, QV_VIDEO_PROC_BRIGHTNESS, brightness));
        Frames frames;
        VideoCaptureV4L2SetCallback(capture, Frames::OnFrame, &frames);
        ASSERT_EQ(0, VideoCaptureV4L2Start(capture));
        EXPECT_TRUE(frames.AwaitMore(2));
        VideoCaptureV4L2Stop(capture);
        lumas.push_back(frames.Last().at(0));
    }
    EXPECT_LT(lumas[0], lumas[1]);
    EXPECT_LT(lumas[1], lumas[2]);
    EXPECT_EQ(QV_RESULT_OK, QVSetVideoProcParam(capture, QV_VIDEO_PROC_BRIGHTNESS, 128));
    VideoCaptureV4L2Close(capture);
}

}  // namespace
