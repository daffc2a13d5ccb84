// Scripted V4L2 nodes in place of libv4l2 and the kernel.
//
// Defines v4l2_open, v4l2_ioctl, v4l2_mmap, v4l2_munmap and v4l2_close, and takes open, close,
// ioctl, poll and readlink for the nodes that it knows: /dev/videoN and /sys/class/video4linux.
// Everything else goes to the system. A refused call returns -1 with the errno given with the
// refusal.
#pragma once

#include <linux/videodev2.h>

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "QVCaptureTypes.h"
#include "lib/CallLog.h"
#include "support/TempFolder.h"

namespace fake {

struct Frame {
    uint32_t index;
    uint32_t bytesUsed;
};

struct PollAnswer {
    int result;
    short events;
};

// What every node answers.
struct V4l2Device {
    uint32_t capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    uint32_t parmCapability = V4L2_CAP_TIMEPERFRAME;
    std::vector<uint32_t> formats;                          // one call each, then the end
    std::vector<v4l2_frmsizeenum> sizes;                    // likewise
    std::vector<v4l2_frmivalenum> intervals;                // likewise
    bool endless = false;                                   // lists never end: the last repeats
    std::map<uint32_t, v4l2_queryctrl> controls;            // by id
    std::map<uint32_t, int32_t> values;                     // by id
    uint32_t granted = 4;                                   // buffers
    std::vector<uint32_t> lengths{4096, 4096, 4096, 4096};  // by buffer
};

class V4l2 : public CallLog {
  public:
    static V4l2& Get();
    void Reset();

    // Adds /dev/video<number>; its sysfs entry links to target and shows serial, if there is one.
    void AddNode(int number, const std::string& target = "", const std::string& serial = "");
    void AddPath(const std::string& path) { m_nodes[path] = 0; }
    // Makes a node one that cannot capture, as the metadata node of a camera.
    void NodeHasOwnCapabilities(int number, uint32_t capabilities);

    // Adds /dev/video<number> as a PCIe channel of the cards' driver.
    void AddChannel(int number, const _QVCAP_CHANNEL_INFO& info);
    // Lays a file below /proc/asound.
    void AddSoundFile(const std::string& name, const std::string& content);

    void Deliver(uint32_t index, uint32_t bytesUsed);
    int Descriptors();
    int Mappings();
    bool Streaming();

    V4l2Device device;
    std::deque<PollAnswer> polls;  // consumed before frames are looked at
    std::deque<Frame> frames;

    v4l2_format triedFormat{};
    v4l2_format setFormat{};
    v4l2_streamparm setParm{};
    v4l2_frmsizeenum askedSize{};
    v4l2_frmivalenum askedInterval{};
    std::vector<uint32_t> queued;

    // Used by the fake functions.
    int OpenNode(const std::string& path);
    bool IsNode(int fd);
    int CloseNode(int fd);
    int Control(const char* caller, int fd, unsigned long request, void* record);
    std::string Redirect(const std::string& path);

    std::map<int, std::string> descriptors;  // open ones
    std::map<void*, size_t> mappings;
    bool streaming = false;

  private:
    int Answer(int fd, unsigned long request, void* record);
    void MakeRoot();
    std::map<std::string, _QVCAP_CHANNEL_INFO> m_channels;  // by path
    std::map<std::string, uint32_t> m_nodes;                // path, own capabilities or 0
    std::optional<qvtest::TempFolder> m_root;  // folder that stands for / of /sys and /proc
};

}  // namespace fake
