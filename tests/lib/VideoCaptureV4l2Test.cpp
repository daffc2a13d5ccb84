// V4L2 capture against scripted nodes: configuration, streaming, refusals, what is left behind.
#include "VideoCaptureV4l2.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <cstring>

#include "lib/CaptureLog.h"
#include "lib/FakeV4l2.h"
#include "lib/RefusedThreads.h"
#include "lib/TestThreads.h"

using fake::V4l2;
using testing::ElementsAre;
using testing::Field;

namespace {

constexpr uint32_t kYuyv = v4l2_fourcc('Y', 'U', 'Y', 'V');

struct Frame {
    const unsigned char* address;
    unsigned bytes;
    std::string threadName;
};
using Frames = CaptureLog<Frame, VideoCaptureV4L2Context>;

void OnFrame(const unsigned char* frame, unsigned bytesUsed, void* param) {
    static_cast<Frames*>(param)->Take({frame, bytesUsed, ThreadName()});
}

class VideoCaptureV4l2Test : public testing::Test {
  protected:
    VideoCaptureV4l2Test() {
        v4l2.Reset();
        v4l2.AddNode(3);
    }
    ~VideoCaptureV4l2Test() override {
        EXPECT_EQ(0, v4l2.Descriptors()) << "a node was left open";
        EXPECT_EQ(0, v4l2.Mappings()) << "a buffer was left mapped";
        EXPECT_FALSE(v4l2.Streaming()) << "a stream was left on";
        EXPECT_TRUE(NoCaptureThreadIsLeft());
    }

    static VideoCaptureV4L2Context* Open() {
        VideoCaptureV4L2Context* capture = nullptr;
        EXPECT_EQ(
            0, VideoCaptureV4L2Open("/dev/video3", kYuyv, 1280, 720, 333333, 10000000, &capture));
        return capture;
    }
    VideoCaptureV4L2Context* OpenAndStart() {
        VideoCaptureV4L2Context* capture = Open();
        VideoCaptureV4L2SetCallback(capture, OnFrame, &frames);
        EXPECT_EQ(0, VideoCaptureV4L2Start(capture));
        return capture;
    }

    V4l2& v4l2 = V4l2::Get();
    Frames frames;
};

// ---- open and configure

TEST_F(VideoCaptureV4l2Test, OpenConfiguresTheNodeInOneFixedOrder) {
    VideoCaptureV4L2Context* capture = Open();
    EXPECT_THAT(v4l2.Calls(),
                ElementsAre("v4l2_open(/dev/video3, rdwr|nonblock)", "QUERYCAP(v4l2_ioctl)",
                            "TRY_FMT(v4l2_ioctl)", "S_FMT(v4l2_ioctl)", "G_PARM(ioctl)",
                            "S_PARM(ioctl)", "G_PARM(ioctl)", "G_FMT(v4l2_ioctl)"));
    EXPECT_STREQ("/dev/video3", capture->path);
    EXPECT_EQ(kYuyv, capture->pixelFormat);
    EXPECT_EQ(1280u, capture->width);
    EXPECT_EQ(720u, capture->height);
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, TheFormatAskedForHoldsSizeAndPixelFormatAndNothingElse) {
    VideoCaptureV4L2Close(Open());
    v4l2_format expected{};
    expected.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    expected.fmt.pix.width = 1280;
    expected.fmt.pix.height = 720;
    expected.fmt.pix.pixelformat = kYuyv;
    EXPECT_EQ(0, memcmp(&expected, &v4l2.triedFormat, sizeof expected));
    EXPECT_EQ(0, memcmp(&expected, &v4l2.setFormat, sizeof expected));
}

TEST_F(VideoCaptureV4l2Test, AFrameDurationOf333333RequestsThatManyTenMillionths) {
    VideoCaptureV4L2Close(Open());
    EXPECT_EQ(333333u, v4l2.setParm.parm.capture.timeperframe.numerator);
    EXPECT_EQ(10000000u, v4l2.setParm.parm.capture.timeperframe.denominator);
    EXPECT_EQ(uint32_t{V4L2_BUF_TYPE_VIDEO_CAPTURE}, v4l2.setParm.type);
}

TEST_F(VideoCaptureV4l2Test, ANodeWithFurtherAbilitiesKeepsItsFrameRate) {
    v4l2.device.parmCapability = V4L2_CAP_TIMEPERFRAME | 1;
    VideoCaptureV4L2Close(Open());
    EXPECT_EQ(0, v4l2.Count("S_PARM"));
    EXPECT_EQ(2, v4l2.Count("G_PARM"));
}

TEST_F(VideoCaptureV4l2Test, AnIntervalTermBelowOneKeepsTheFrameRate) {
    for (const auto& [numerator, denominator] : {std::pair{0, 1}, {1, 0}, {-1, 30}}) {
        VideoCaptureV4L2Context* capture = nullptr;
        ASSERT_EQ(0, VideoCaptureV4L2Open("/dev/video3", kYuyv, 64, 64, numerator, denominator,
                                          &capture));
        VideoCaptureV4L2Close(capture);
    }
    EXPECT_EQ(0, v4l2.Count("S_PARM"));
}

TEST_F(VideoCaptureV4l2Test, ANodeThatCannotCaptureOrCannotStreamIsRefusedAndClosed) {
    for (const uint32_t capabilities :
         {uint32_t{V4L2_CAP_VIDEO_CAPTURE}, uint32_t{V4L2_CAP_STREAMING}, uint32_t{0}}) {
        v4l2.device.capabilities = capabilities;
        VideoCaptureV4L2Context* capture = nullptr;
        EXPECT_EQ(-1, VideoCaptureV4L2Open("/dev/video3", kYuyv, 64, 64, 1, 30, &capture));
        EXPECT_EQ(nullptr, capture);
        EXPECT_EQ(0, v4l2.Descriptors());
    }
    EXPECT_EQ(0, v4l2.Count("TRY_FMT"));
}

TEST_F(VideoCaptureV4l2Test, EveryRefusedCallOfAnOpenGivesItsResultAndLeavesNothingOpen) {
    // 1 open, 2 QUERYCAP, 3 TRY_FMT, 4 S_FMT, 5 G_PARM, 6 S_PARM, 7 G_PARM, 8 G_FMT. When the fifth
    // is refused the interval is left alone.
    const int expected[] = {-1, -1, -1, -1, 0, 0, 0, -1};
    for (int call = 1; call <= 8; ++call) {
        SCOPED_TRACE(call);
        v4l2.Reset();
        v4l2.AddNode(3);
        v4l2.RefuseCall(call, EIO);
        VideoCaptureV4L2Context* capture = nullptr;
        EXPECT_EQ(expected[call - 1],
                  VideoCaptureV4L2Open("/dev/video3", kYuyv, 64, 64, 1, 30, &capture));
        EXPECT_EQ(expected[call - 1] == 0, capture != nullptr);
        VideoCaptureV4L2Close(capture);
        EXPECT_EQ(0, v4l2.Descriptors());
    }
}

TEST_F(VideoCaptureV4l2Test, OpenOfNothingFails) {
    VideoCaptureV4L2Context* capture = nullptr;
    EXPECT_EQ(-1, VideoCaptureV4L2Open(nullptr, kYuyv, 64, 64, 1, 30, &capture));
    EXPECT_EQ(-1, VideoCaptureV4L2Open("/dev/video9", kYuyv, 64, 64, 1, 30, &capture));
    EXPECT_EQ(nullptr, capture);
}

TEST_F(VideoCaptureV4l2Test, AnOpenThatNobodyCouldCloseIsClosedAtOnce) {
    EXPECT_EQ(0, VideoCaptureV4L2Open("/dev/video3", kYuyv, 64, 64, 1, 30, nullptr));
    EXPECT_EQ(0, v4l2.Descriptors());
}

TEST_F(VideoCaptureV4l2Test, APathOfAnyLengthIsCutToFit) {
    const std::string path = "/dev/video3" + std::string(300, '0');
    v4l2.AddPath(path);
    VideoCaptureV4L2Context* capture = nullptr;
    ASSERT_EQ(0, VideoCaptureV4L2Open(path.c_str(), kYuyv, 64, 64, 1, 30, &capture));
    EXPECT_EQ(path.substr(0, 255), capture->path);
    VideoCaptureV4L2Close(capture);
}

// ---- start

TEST_F(VideoCaptureV4l2Test, StartMapsAndQueuesFourBuffersThenStreams) {
    VideoCaptureV4L2Context* capture = OpenAndStart();
    EXPECT_EQ(4, v4l2.Mappings());
    EXPECT_TRUE(v4l2.Streaming());
    VideoCaptureV4L2Close(capture);
    const std::vector<std::string> calls = v4l2.Calls();
    const std::vector<std::string> started(calls.begin() + 8, calls.begin() + 22);
    EXPECT_THAT(
        started,
        ElementsAre("REQBUFS(v4l2_ioctl)", "QUERYBUF(v4l2_ioctl)", "v4l2_mmap(4096, 0)",
                    "QUERYBUF(v4l2_ioctl)", "v4l2_mmap(4096, 65536)", "QUERYBUF(v4l2_ioctl)",
                    "v4l2_mmap(4096, 131072)", "QUERYBUF(v4l2_ioctl)", "v4l2_mmap(4096, 196608)",
                    "QBUF(v4l2_ioctl)", "QBUF(v4l2_ioctl)", "QBUF(v4l2_ioctl)", "QBUF(v4l2_ioctl)",
                    "STREAMON(v4l2_ioctl)"));
    EXPECT_THAT(v4l2.queued, ElementsAre(0, 1, 2, 3));
}

TEST_F(VideoCaptureV4l2Test, StartFailsWithoutAnOpenContext) {
    EXPECT_EQ(-1, VideoCaptureV4L2Start(nullptr));
    VideoCaptureV4L2Context closed{};
    closed.fd = -1;
    EXPECT_EQ(-1, VideoCaptureV4L2Start(&closed));
}

TEST_F(VideoCaptureV4l2Test, OneGrantedBufferIsUsedAlone) {
    v4l2.device.granted = 1;
    VideoCaptureV4L2Context* capture = OpenAndStart();
    EXPECT_EQ(1, v4l2.Mappings());
    v4l2.Deliver(0, 100);
    frames.AwaitCount(1);
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, OfManyGrantedBuffersTheFirstFourAreUsed) {
    v4l2.device.granted = 32;
    VideoCaptureV4L2Context* capture = OpenAndStart();
    EXPECT_EQ(4, v4l2.Mappings());
    EXPECT_THAT(v4l2.queued, ElementsAre(0, 1, 2, 3));
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, NoGrantedBufferFailsTheStart) {
    v4l2.device.granted = 0;
    VideoCaptureV4L2Context* capture = Open();
    EXPECT_EQ(-1, VideoCaptureV4L2Start(capture));
    EXPECT_EQ(0, v4l2.Count("STREAMON"));
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, ABufferOfNoLengthFailsTheStartAndUnmapsTheOthers) {
    v4l2.device.lengths = {4096, 4096, 0, 4096};
    VideoCaptureV4L2Context* capture = Open();
    EXPECT_EQ(-1, VideoCaptureV4L2Start(capture));
    EXPECT_EQ(0, v4l2.Mappings());
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, EveryRefusedCallOfAStartGivesItsResultAndLeavesNothingMapped) {
    // Calls 9 ... 22: REQBUFS, four times QUERYBUF and mmap, four times QBUF (not fatal), STREAMON.
    for (int call = 9; call <= 22; ++call) {
        SCOPED_TRACE(call);
        const bool queuing = call >= 18 && call <= 21;
        v4l2.Reset();
        v4l2.AddNode(3);
        v4l2.RefuseCall(call, EIO);
        VideoCaptureV4L2Context* capture = Open();
        EXPECT_EQ(queuing ? 0 : -1, VideoCaptureV4L2Start(capture));
        if (!queuing) {
            EXPECT_EQ(0, v4l2.Mappings());
            EXPECT_EQ(1, v4l2.Descriptors()) << "the context stays open";
            EXPECT_EQ(1, v4l2.Count("STREAMOFF"));
            EXPECT_EQ(4, v4l2.Count("v4l2_munmap"));
            EXPECT_EQ(0, VideoCaptureV4L2Start(capture)) << "a later start may succeed";
        }
        VideoCaptureV4L2Close(capture);
        EXPECT_EQ(0, v4l2.Mappings());
    }
}

TEST_F(VideoCaptureV4l2Test, AThreadThatCannotBeMadeFailsTheStartAndEndsTheStream) {
    VideoCaptureV4L2Context* capture = Open();
    VideoCaptureV4L2SetCallback(capture, OnFrame, &frames);
    fake::g_refusedThreads = 1;
    EXPECT_EQ(-1, VideoCaptureV4L2Start(capture));
    EXPECT_FALSE(v4l2.Streaming());
    EXPECT_EQ(0, v4l2.Mappings());
    ASSERT_EQ(0, VideoCaptureV4L2Start(capture));
    v4l2.Deliver(0, 1);
    frames.AwaitCount(1);
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, ASecondStartIsRefusedAndTheCaptureGoesOn) {
    VideoCaptureV4L2Context* capture = OpenAndStart();
    EXPECT_EQ(-1, VideoCaptureV4L2Start(capture));
    EXPECT_EQ(4, v4l2.Mappings());
    v4l2.Deliver(1, 10);
    frames.AwaitCount(1);
    VideoCaptureV4L2Close(capture);
}

// ---- streaming

TEST_F(VideoCaptureV4l2Test, FramesArriveInPlaceOnTheCaptureThreadAndAreQueuedAgain) {
    VideoCaptureV4L2Context* capture = OpenAndStart();
    v4l2.Deliver(2, 4096);
    v4l2.Deliver(0, 0);
    v4l2.Deliver(3, 17);
    const std::vector<Frame> seen = frames.AwaitCount(3);
    EXPECT_EQ("VideoCapture", seen.back().threadName);
    EXPECT_THAT(seen, ElementsAre(Field(&Frame::bytes, 4096), Field(&Frame::bytes, 0),
                                  Field(&Frame::bytes, 17)));
    EXPECT_EQ(capture->buffers[2].address, seen[0].address);
    EXPECT_EQ(capture->buffers[0].address, seen[1].address);
    EXPECT_EQ(capture->buffers[3].address, seen[2].address);
    VideoCaptureV4L2Stop(capture);
    EXPECT_THAT(v4l2.queued, ElementsAre(0, 1, 2, 3, 2, 0, 3));
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, MoreBytesThanTheBufferHoldsAreNotToldToTheCallback) {
    VideoCaptureV4L2Context* capture = OpenAndStart();
    v4l2.Deliver(1, 0xFFFFFFFF);
    frames.AwaitCount(1);
    EXPECT_EQ(4096u, frames.Items()[0].bytes);
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, AnIndexWithoutBufferIsSkipped) {
    v4l2.device.granted = 2;
    VideoCaptureV4L2Context* capture = OpenAndStart();
    v4l2.Deliver(2, 1);  // a slot that holds no buffer
    v4l2.Deliver(4, 2);
    v4l2.Deliver(0xFFFFFFFF, 3);
    v4l2.Deliver(1, 4);
    frames.AwaitCount(1);
    VideoCaptureV4L2Close(capture);
    EXPECT_THAT(frames.Items(), ElementsAre(Field(&Frame::bytes, 4)));
    EXPECT_THAT(v4l2.queued, ElementsAre(0, 1, 1));
}

TEST_F(VideoCaptureV4l2Test, WithoutCallbackFramesAreQueuedAgainUndelivered) {
    VideoCaptureV4L2Context* capture = Open();
    VideoCaptureV4L2SetCallback(nullptr, OnFrame, &frames);
    ASSERT_EQ(0, VideoCaptureV4L2Start(capture));
    v4l2.Deliver(1, 10);
    EXPECT_TRUE(Eventually([&] { return v4l2.Count("QBUF") == 5; }));
    VideoCaptureV4L2Close(capture);
    EXPECT_EQ(1u, v4l2.queued.back());
}

TEST_F(VideoCaptureV4l2Test, OnlyAPollThatAnswersDataAndNothingElseIsFollowed) {
    v4l2.polls = {{-1, 0},      {1, POLLERR}, {1, POLLIN | POLLERR},
                  {1, POLLHUP}, {0, 0},       {1, POLLNVAL}};
    VideoCaptureV4L2Context* capture = OpenAndStart();
    EXPECT_TRUE(Eventually([&] {
        const std::lock_guard lock(v4l2.mutex);
        return v4l2.polls.empty();
    }));
    v4l2.Deliver(0, 1);
    frames.AwaitCount(1);
    VideoCaptureV4L2Close(capture);
    EXPECT_EQ(1, v4l2.Count("DQBUF"));
}

TEST_F(VideoCaptureV4l2Test, FailedDequeuesAreTriedAgain) {
    v4l2.Refuse("DQBUF", EAGAIN);
    v4l2.Refuse("DQBUF", EIO);
    v4l2.frames = {{0, 1}};
    VideoCaptureV4L2Context* capture = OpenAndStart();
    frames.AwaitCount(1);
    VideoCaptureV4L2Close(capture);
    EXPECT_EQ(3, v4l2.Count("DQBUF"));
}

TEST_F(VideoCaptureV4l2Test, AnUnpluggedDeviceIsPolledUntilTheCaptureIsStopped) {
    for (int i = 0; i < 100000; ++i) v4l2.polls.push_back({1, POLLERR | POLLHUP});
    v4l2.Refuse("STREAMOFF", ENODEV);
    VideoCaptureV4L2Context* capture = OpenAndStart();
    EXPECT_TRUE(Eventually([&] {
        const std::lock_guard lock(v4l2.mutex);
        return v4l2.polls.size() < 99998;
    }));
    VideoCaptureV4L2Close(capture);
    v4l2.streaming = false;  // the refused call, not the library, left it on
}

// ---- stop and close

TEST_F(VideoCaptureV4l2Test, StopEndsTheStreamThenTheMappings) {
    VideoCaptureV4L2Context* capture = OpenAndStart();
    VideoCaptureV4L2Stop(capture);
    EXPECT_EQ(0, v4l2.Mappings());
    EXPECT_EQ(1, v4l2.Descriptors());
    const std::vector<std::string> calls = v4l2.Calls();
    const std::vector<std::string> stopped(calls.end() - 5, calls.end());
    EXPECT_THAT(stopped,
                ElementsAre("STREAMOFF(v4l2_ioctl)", "v4l2_munmap(4096)", "v4l2_munmap(4096)",
                            "v4l2_munmap(4096)", "v4l2_munmap(4096)"));
    VideoCaptureV4L2Stop(capture);
    EXPECT_EQ(calls, v4l2.Calls()) << "a second stop does nothing";
    EXPECT_EQ(0, VideoCaptureV4L2Start(capture)) << "it can be started again";
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, StopOfACaptureNeverStartedDoesNothingAndCloseClosesTheNode) {
    VideoCaptureV4L2Stop(nullptr);
    VideoCaptureV4L2Close(nullptr);
    VideoCaptureV4L2Context* capture = Open();
    const size_t calls = v4l2.Calls().size();
    VideoCaptureV4L2Stop(capture);
    EXPECT_EQ(calls, v4l2.Calls().size());
    VideoCaptureV4L2Close(capture);
    EXPECT_EQ("v4l2_close()", v4l2.Calls().back());
    EXPECT_EQ(calls + 1, v4l2.Calls().size());
}

TEST_F(VideoCaptureV4l2Test, AFailedRestartUnmapsNothingThatIsNotItsOwn) {
    VideoCaptureV4L2Context* capture = OpenAndStart();
    VideoCaptureV4L2Stop(capture);
    v4l2.Refuse("REQBUFS", EBUSY);
    EXPECT_EQ(-1, VideoCaptureV4L2Start(capture));
    const std::vector<std::string> calls = v4l2.Calls();
    EXPECT_EQ("v4l2_munmap(0)", calls.back());
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, StopFromTheCallbackEndsTheThreadAndALaterStopUnmaps) {
    frames.inside = VideoCaptureV4L2Stop;
    VideoCaptureV4L2Context* capture = Open();
    frames.capture = capture;
    VideoCaptureV4L2SetCallback(capture, OnFrame, &frames);
    ASSERT_EQ(0, VideoCaptureV4L2Start(capture));
    v4l2.Deliver(0, 1);
    frames.AwaitCount(1);
    EXPECT_TRUE(NoCaptureThreadIsLeft());
    EXPECT_EQ(4, v4l2.Mappings());
    VideoCaptureV4L2Stop(capture);
    EXPECT_EQ(0, v4l2.Mappings());
    VideoCaptureV4L2Close(capture);
}

TEST_F(VideoCaptureV4l2Test, CloseFromTheCallbackReleasesEverythingAfterTheCallback) {
    frames.inside = [](VideoCaptureV4L2Context* seen) {
        VideoCaptureV4L2Stop(seen);
        VideoCaptureV4L2Close(seen);
        EXPECT_EQ(4, V4l2::Get().Mappings()) << "not under the callback";
    };
    VideoCaptureV4L2Context* capture = Open();
    frames.capture = capture;
    VideoCaptureV4L2SetCallback(capture, OnFrame, &frames);
    ASSERT_EQ(0, VideoCaptureV4L2Start(capture));
    v4l2.Deliver(0, 1);
    frames.AwaitCount(1);
    EXPECT_TRUE(Eventually([&] { return v4l2.Descriptors() == 0; }));
    EXPECT_TRUE(NoCaptureThreadIsLeft());
}

}  // namespace
