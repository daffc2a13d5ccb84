// Every allocation of sound and node video fails once, one after the other, on a scripted ALSA and
// V4L2: each call ends with a result, nothing is left behind, and the same calls succeed right
// after.
#include <cerrno>

#include "QVCapture.h"
#include "lib/FailingMemory.h"
#include "lib/FakeAlsa.h"
#include "lib/FakeV4l2.h"
#include "lib/SimulatedTavo.h"
#include "lib/TestThreads.h"

namespace {

using fake::Alsa;
using fake::Tavo;
using fake::V4l2;

constexpr char kUsbPath[] = "usb:1-1";
constexpr uint32_t kYuy2 = v4l2_fourcc('Y', 'U', 'Y', '2');

void OnFrame(const unsigned char*, unsigned int, void*) {}
void OnChunk(const unsigned char*, int, long long, void*) {}

void SetUpDevices() {
    Alsa& alsa = Alsa::Get();
    V4l2& nodes = V4l2::Get();
    Tavo& tavo = Tavo::Get();
    alsa.Reset();
    nodes.Reset();
    tavo.Reset();
    nodes.AddNode(4, "../../devices/p/usb1/1-1/1-1:1.0/video4linux/video4", "TV0012345\n");
    nodes.device.formats = {v4l2_fourcc('Y', 'U', 'Y', 'V')};
    tavo.AddDevice(kUsbPath, "Tavo Capture HDMI", "001/004", "TV0012345");
    alsa.cards = {{1, "Tavo Capture HDMI", "HDMI", {{.name = "Mic"}, {.name = "HDMI"}}}};
    nodes.AddSoundFile("HDMI/usbbus", "001/004\n");
    EXPECT_EQ(QV_RESULT_OK, tavo.Supply());
}

// True when every call succeeded.
bool UseMedia() {
    SetUpDevices();
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(kUsbPath);
    bool good = channel != nullptr;
    QV_VIDEO_CAPTURE video = QVCreateVideoCapture(channel, 64, 48, kYuy2, 333333, OnFrame, nullptr);
    QV_AUDIO_CAPTURE audio = QVCreateAudioCapture(channel, 0, 48000, 16, 2, OnChunk, nullptr);
    AudioPlaybackALSAContext* playback = nullptr;
    good = video != nullptr && audio != nullptr && good;
    good = AudioPlaybackALSACreate(&playback) == 0 && good;
    if (playback != nullptr) {
        good = AudioPlaybackALSAStart(playback, "hw:1,0", 48000, 16, 2, 10) == 0 && good;
        AudioPlaybackALSAStop(playback);
        AudioPlaybackALSADestroy(playback);
    }
    unsigned char edid[256] = {};
    unsigned long size = sizeof edid;
    good = QVSetEDID(channel, edid, size) == QV_RESULT_OK && good;
    good = QVGetEDID(channel, edid, &size) == QV_RESULT_OK && good;
    QVDestoryVideoCapture(video);
    QVDestoryAudioCapture(audio);
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    return good;
}

TEST(MediaAllocationTest, EveryAllocationOfSoundAndNodeVideoMayFail) {
    qvtest::FailEachAllocation(UseMedia, [] {
        EXPECT_EQ(0, Tavo::Get().handlesOpen);
        EXPECT_EQ(0, Alsa::Get().pcmsOpen);
        EXPECT_EQ(0, Alsa::Get().mixersOpen);
        EXPECT_EQ(0, V4l2::Get().Descriptors());
        EXPECT_EQ(0, V4l2::Get().Mappings());
        EXPECT_TRUE(NoCaptureThreadIsLeft());
    });
}

}  // namespace
