// Finding the video node of a USB device through sysfs; see VideoCaptureV4l2.h.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "FirstLine.h"
#include "VideoCaptureV4l2.h"

namespace {

constexpr int kFailed = -1;
constexpr int kNodesBeyondChannels = 31;  // nodes tried beyond one per channel
constexpr int kMaxNodes = 256;            // minor numbers that the kernel has for video
constexpr int kPathSize = 64;
constexpr int kTextSize = 256;   // the target of a link, a line
constexpr size_t kBusDigit = 2;  // "00N/ddd": where a sound card's bus line has the bus number

bool CanOpen(const char* path) {
    const int fd = open(path, O_RDWR);
    if (fd < 0) return false;
    close(fd);
    return true;
}

// A USB device has nodes of several kinds; only a node that captures is accepted.
bool CanCapture(const char* path) {
    const int fd = open(path, O_RDWR | O_NONBLOCK);
    if (fd < 0) return false;
    v4l2_capability capability{};
    const bool answered = ioctl(fd, VIDIOC_QUERYCAP, &capability) >= 0;
    close(fd);
    // if the node reports its own capabilities, `capabilities` are those of the whole device
    const bool own = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0;
    const uint32_t caps = own ? capability.device_caps : capability.capabilities;
    return answered && (caps & V4L2_CAP_VIDEO_CAPTURE) != 0;
}

// Whether the node's device is on the USB bus whose number is this digit.
bool IsOnBus(int index, char busDigit) {
    char link[kPathSize];
    char target[kTextSize] = {};
    snprintf(link, sizeof link, "/sys/class/video4linux/video%d", index);
    const ssize_t length = readlink(link, target, sizeof target - 1);
    if (length < 0) return false;
    target[length] = '\0';
    const char* usb = strstr(target, "usb");
    return usb != nullptr && usb[strlen("usb")] == busDigit;
}

bool HasSerial(int index, const char* serial) {
    char path[kPathSize];
    char line[kTextSize];
    // The node's device is an interface; its parent is the USB device, which has the serial number.
    snprintf(path, sizeof path, "/sys/class/video4linux/video%d/device/../serial", index);
    qv::ReadFirstLine(path, line, sizeof line);
    return strcmp(line, serial) == 0;
}

}  // namespace

int GetUSBCaptureVideoPath(const char* usbBus, char* devicePath) {
    if (usbBus == nullptr || devicePath == nullptr || strnlen(usbBus, kBusDigit + 1) <= kBusDigit)
        return kFailed;
    const int last = QVGetChannelCount() + kNodesBeyondChannels;
    for (int index = 0; index <= last; ++index) {
        char path[kPathSize];
        snprintf(path, sizeof path, "/dev/video%i", index);
        if (!CanOpen(path) || !IsOnBus(index, usbBus[kBusDigit])) continue;
        strcpy(devicePath, path);
        return 0;
    }
    return kFailed;
}

int GetUSBCaptureVideoPathbySerial(const char* serial, char* devicePath) {
    if (serial == nullptr || devicePath == nullptr || serial[0] == '\0') return kFailed;
    for (int index = 0; index < kMaxNodes; ++index) {
        if (!HasSerial(index, serial)) continue;
        char path[kPathSize];
        snprintf(path, sizeof path, "/dev/video%i", index);
        if (!CanCapture(path)) continue;
        strcpy(devicePath, path);
        return 0;
    }
    return kFailed;
}
