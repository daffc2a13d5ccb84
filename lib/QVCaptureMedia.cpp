// The public functions of sound and V4L2 video: find the node or sound card of a channel, and
// forward to the units that use it.
//
// A channel's family text decides which, and must agree with the kind of the object: a mismatch
// fails.
#include "QVCaptureMedia.h"

#include <cstring>
#include <iterator>
#include <string_view>

#include "media/AudioAlsa.h"
#include "media/AudioVolume.h"
#include "media/VideoCaptureV4l2.h"
#include "pcie/QVCaptureBase.h"
#include "usb/QVUSBCaptureBase.h"

namespace {

constexpr int kPathSize = 512;
constexpr int kUnitsPerSecond = 10000000;  // of 100 ns
constexpr int kAudioPeriodMs = 10;

// Audio node of the model table for the caller's node; a larger node counts as the last one.
constexpr _QVCAP_USB_AUDIO_NODE kAudioNodes[] = {4, 4, 0, 6, 2};
constexpr _QVCAP_USB_AUDIO_NODE kOtherAudioNode = 4;

_QVCAP_USB_AUDIO_NODE AudioNode(unsigned int node) {
    return node < std::size(kAudioNodes) ? kAudioNodes[node] : kOtherAudioNode;
}

// The channel as an object of its kind: at most one of the two is set.
struct Identity {
    CQVCaptureBase* pcie = nullptr;
    CQVUSBCaptureBase* usb = nullptr;
    char product[sizeof _QVCAP_CHANNEL_INFO::productName + 1] = {};
};

bool IsFamily(const _QVCAP_CHANNEL_INFO& info, std::string_view family) {
    return family ==
           std::string_view(info.familyName, strnlen(info.familyName, sizeof info.familyName));
}

Identity Identify(QV_CHANNEL channel) {
    Identity identity;
    _QVCAP_CHANNEL_INFO info{};
    if (QVGetChannelInfo(channel, &info) != QV_RESULT_OK) return identity;
    auto* device = static_cast<IQVCaptureDevice*>(channel);
    if (IsFamily(info, "Pelix Capture") || IsFamily(info, "Lumo Capture"))
        identity.pcie = device->AsPcieChannel();
    else if (IsFamily(info, "Tavo Capture"))
        identity.usb = device->AsUsbChannel();
    memcpy(identity.product, info.productName, sizeof info.productName);
    return identity;
}

// PCM device of the channel's sound card; empty when it has none.
void FindPcm(QV_CHANNEL channel, unsigned int node, char* pcm) {
    const Identity identity = Identify(channel);
    if (identity.pcie != nullptr) {
        GetPelixCaptureAudioPath(identity.pcie->DevicePath(), nullptr, nullptr, pcm);
    } else if (identity.usb != nullptr) {
        char usbBus[sizeof _QVUSB_DEVICE_CONTEXT::usbBus] = {};
        identity.usb->GetUsbbus(usbBus);
        GetUSBCaptureAudioPath(usbBus, identity.product, AudioNode(node), nullptr, nullptr, pcm);
    }
}

QV_RESULT FromUnit(int result) { return result < 0 ? QV_RESULT_FAILED : QV_RESULT_OK; }

QV_RESULT Resolutions(QV_CHANNEL channel, int* mode, int* count,
                      _QVCAP_VIDEO_RESOLUTION_RANGE* range, _QVCAP_VIDEO_RESOLUTION_LIST* list) {
    char path[kPathSize];
    if (GetDevicePathByChannel(channel, path) != QV_RESULT_OK) return QV_RESULT_BAD_ARGUMENT;
    return FromUnit(GetVideoCaptureSupportResolutionV4L2(path, mode, count, range, list));
}

VideoCaptureV4L2Context* AsVideo(QV_VIDEO_CAPTURE capture) {
    return static_cast<VideoCaptureV4L2Context*>(capture);
}

}  // namespace

QV_RESULT GetDevicePathByChannel(QV_CHANNEL channel, char* path) {
    if (path == nullptr) return QV_RESULT_FAILED;
    path[0] = '\0';
    const Identity identity = Identify(channel);
    if (identity.pcie != nullptr) {
        strcpy(path, identity.pcie->DevicePath());
    } else if (identity.usb != nullptr) {
        char serial[sizeof _QVUSB_DEVICE_CONTEXT::serial] = {};
        identity.usb->GetSerial(serial);
        GetUSBCaptureVideoPathbySerial(serial, path);
    }
    return path[0] == '\0' ? QV_RESULT_FAILED : QV_RESULT_OK;
}

// ---- Video -----------------------------------------------------------------------------------

QV_VIDEO_CAPTURE QVCreateVideoCapture(QV_CHANNEL channel, int cx, int cy, unsigned int fourcc,
                                      int frameDuration, QV_VIDEO_CAPTURE_CALLBACK callback,
                                      void* param) {
    char path[kPathSize];
    if (channel == nullptr || GetDevicePathByChannel(channel, path) != QV_RESULT_OK) return nullptr;
    VideoCaptureV4L2Context* capture = nullptr;
    if (VideoCaptureV4L2Open(path, QVFourcc2V4L2Fmt(fourcc), static_cast<unsigned>(cx),
                             static_cast<unsigned>(cy), frameDuration, kUnitsPerSecond,
                             &capture) != 0)
        return nullptr;
    VideoCaptureV4L2SetCallback(capture, callback, param);
    VideoCaptureV4L2Start(capture);  // Deliberate: returned even if it did not start
    return capture;
}

QV_RESULT QVDestoryVideoCapture(QV_VIDEO_CAPTURE capture) {
    if (capture == nullptr) return QV_RESULT_FAILED;
    VideoCaptureV4L2Stop(AsVideo(capture));
    VideoCaptureV4L2Close(AsVideo(capture));
    return QV_RESULT_OK;
}

QV_RESULT QVGetVideoCaptureSupportColorFormat(QV_CHANNEL channel, unsigned int* fourccs,
                                              int* count) {
    char path[kPathSize];
    if (GetDevicePathByChannel(channel, path) != QV_RESULT_OK) return QV_RESULT_BAD_ARGUMENT;
    return FromUnit(GetVideoCaptureSupportColorFormatV4L2(path, fourccs, count));
}

QV_RESULT QVGetVideoCaptureSupportListResolution(QV_CHANNEL channel,
                                                 _QVCAP_VIDEO_RESOLUTION_LIST* list, int* total) {
    if (list == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return Resolutions(channel, nullptr, total, nullptr, list);
}

QV_RESULT QVGetVideoCaptureSupportRangeResolution(QV_CHANNEL channel,
                                                  _QVCAP_VIDEO_RESOLUTION_RANGE* range) {
    if (range == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return Resolutions(channel, nullptr, nullptr, range, nullptr);
}

QV_RESULT QVGetVideoCaptureSupportResolutionMode(QV_CHANNEL channel, int* mode) {
    if (mode == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return Resolutions(channel, mode, nullptr, nullptr, nullptr);
}

QV_RESULT QVSetVideoProcParam(QV_VIDEO_CAPTURE capture, _QVCAP_VIDEO_PROC_PARAM_TYPE type,
                              int value) {
    return FromUnit(SetVideoProcParamV4L2(AsVideo(capture), type, value));
}

QV_RESULT QVGetVideoProcParam(QV_VIDEO_CAPTURE capture, _QVCAP_VIDEO_PROC_PARAM_TYPE type,
                              int* value) {
    return FromUnit(
        GetVideoProcParamV4L2(AsVideo(capture), type, nullptr, nullptr, nullptr, value));
}

QV_RESULT QVGetVideoProcParamRange(QV_VIDEO_CAPTURE capture, _QVCAP_VIDEO_PROC_PARAM_TYPE type,
                                   int* minimum, int* maximum, int* defaultValue) {
    return FromUnit(
        GetVideoProcParamV4L2(AsVideo(capture), type, minimum, maximum, defaultValue, nullptr));
}

// ---- Audio -----------------------------------------------------------------------------------

QV_AUDIO_CAPTURE QVCreateAudioCapture(QV_CHANNEL channel, unsigned int node,
                                      unsigned int sampleRate, unsigned short bitsPerSample,
                                      unsigned short channels, QV_AUDIO_CAPTURE_CALLBACK callback,
                                      void* param) {
    if (channel == nullptr) return nullptr;
    char pcm[sizeof SOUND_CARD_INFO::device] = {};
    FindPcm(channel, node, pcm);
    if (pcm[0] == '\0') return nullptr;
    AudioCaptureALSAContext* capture = nullptr;
    if (AudioCaptureALSACreate(&capture, callback, param) != 0) return nullptr;
    if (AudioCaptureALSAStart(capture, pcm, static_cast<int>(sampleRate), bitsPerSample, channels,
                              kAudioPeriodMs) == 0)
        return capture;
    AudioCaptureALSAStop(capture);  // a device that opened but did not start is still open
    AudioCaptureALSADestroy(capture);
    return nullptr;
}

QV_RESULT QVDestoryAudioCapture(QV_AUDIO_CAPTURE capture) {
    if (capture == nullptr) return QV_RESULT_FAILED;
    auto* context = static_cast<AudioCaptureALSAContext*>(capture);
    AudioCaptureALSAStop(context);
    AudioCaptureALSADestroy(context);
    return QV_RESULT_OK;
}

QV_RESULT QVSetAudioVolume(QV_CHANNEL channel, unsigned int node, _QVCAP_AUDIO_VOLUME* volume) {
    if (channel == nullptr || volume == nullptr) return QV_RESULT_FAILED;
    const Identity identity = Identify(channel);
    if (identity.usb != nullptr) return identity.usb->SetAudioVolume(node, volume);
    if (identity.pcie == nullptr) return QV_RESULT_FAILED;
    const int result = SetPelixCaptureAudioVolume(identity.pcie->DevicePath(), volume);
    return result != 0 ? QV_RESULT_FAILED : QV_RESULT_OK;
}

QV_RESULT QVGetAudioVolume(QV_CHANNEL channel, unsigned int node, _QVCAP_AUDIO_VOLUME* volume) {
    if (channel == nullptr || volume == nullptr) return QV_RESULT_FAILED;
    const Identity identity = Identify(channel);
    if (identity.usb != nullptr) return identity.usb->GetAudioVolume(node, volume);
    if (identity.pcie == nullptr) return QV_RESULT_FAILED;
    const int result = GetPelixCaptureAudioVolume(identity.pcie->DevicePath(), volume);
    return result != 0 ? QV_RESULT_FAILED : QV_RESULT_OK;
}
