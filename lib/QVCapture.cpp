// The public functions of QVCapture.h: the instance, the list of channels, and the operations that
// every channel has. The list combines both registries.
#include "QVCapture.h"

#include <new>

#include "Forward.h"
#include "pcie/QVPelixCapture.h"
#include "usb/QVUSBCaptureBase.h"

using qv::AsDevice;
using qv::Device;
using qv::Pcie;

namespace {

// The list holds the PCIe channels first, then the USB channels; both registries refuse a negative
// index.
bool IsPcieIndex(int index) { return index < CQVCaptureControlBase::GetChannelCount(); }
int UsbIndex(int index) { return index - CQVCaptureControlBase::GetChannelCount(); }

QV_CHANNEL OpenUsbChannel(const char* path) {
    auto* opened = new (std::nothrow) CQVUSBCaptureBase;
    if (opened == nullptr) return nullptr;
    if (opened->OpenChannelByPath(path)) return static_cast<IQVCaptureDevice*>(opened);
    delete opened;
    return nullptr;
}

}  // namespace

// ---- Instance and list -----------------------------------------------------------------------

QV_RESULT QVGetVersion(unsigned char* major, unsigned char* minor, unsigned short* build) {
    if (major != nullptr) *major = QV_VERSION_MAJOR;
    if (minor != nullptr) *minor = QV_VERSION_MINOR;
    if (build != nullptr) *build = QV_VERSION_BUILD;
    return QV_RESULT_OK;
}

const char* QVResultText(QV_RESULT result) {
    switch (result) {
        case QV_RESULT_OK:
            return "done";
        case QV_RESULT_FAILED:
            return "refused by the driver or device, or not available";
        case QV_RESULT_NO_DATA:
            return "no audio frame is ready yet";
        case QV_RESULT_BAD_ARGUMENT:
            return "bad argument, or the channel is closed";
        default:
            return "unknown result";
    }
}

bool QVCaptureInitInstance() {
    CQVCaptureControlBase::Init();
    CQVUSBCaptureControlBase::Init();
    QVRefreshDevice();
    return true;  // Deliberate: listing and firmware operations need no event node
}

void QVCaptureExitInstance() {
    CQVCaptureControlBase::Exit();
    CQVUSBCaptureControlBase::Exit();
}

bool QVHasEventNode() { return CQVCaptureControlBase::EventDescriptor() != qv::kClosed; }

QV_RESULT QVRefreshDevice() {
    CQVCaptureControlBase::EnumDevice();
    CQVUSBCaptureControlBase::EnumDevice();
    return QV_RESULT_OK;
}

int QVGetChannelCount() {
    return CQVCaptureControlBase::GetChannelCount() + CQVUSBCaptureControlBase::GetChannelCount();
}

QV_RESULT QVGetChannelInfoByIndex(int index, _QVCAP_CHANNEL_INFO* info) {
    if (IsPcieIndex(index)) return CQVCaptureControlBase::GetChannelInfoByIndex(index, info);
    return CQVUSBCaptureControlBase::GetChannelInfoByIndex(UsbIndex(index), info);
}

QV_RESULT QVGetFamilyInfoByIndex(int index, void* info) {
    if (IsPcieIndex(index))
        return CQVCaptureControlBase::GetFamilyInfoByIndex(
            index, static_cast<_QVCAP_PELIX_CAPTURE_INFO*>(info));
    return CQVUSBCaptureControlBase::GetFamilyInfoByIndex(
        UsbIndex(index), static_cast<_QVUSBCAP_CAPTURE_INFO*>(info));
}

QV_RESULT QVGetDevicePath(int index, char* path) {
    if (IsPcieIndex(index)) return CQVCaptureControlBase::GetDevicePath(index, path);
    return CQVUSBCaptureControlBase::GetDevicePath(UsbIndex(index), path);
}

// ---- Opening and closing ---------------------------------------------------------------------

QV_CHANNEL QVOpenChannel(int board, int channel) {
    auto* opened = new (std::nothrow) CQVCaptureBase;
    if (opened == nullptr) return nullptr;
    if (opened->OpenChannel(board, channel)) return static_cast<IQVCaptureDevice*>(opened);
    delete opened;
    return nullptr;
}

QV_CHANNEL QVOpenChannelByPath(const char* path) {
    auto* opened = new (std::nothrow) CQVCaptureBase;
    if (opened == nullptr) return nullptr;
    if (opened->OpenChannelByPath(path)) return static_cast<IQVCaptureDevice*>(opened);
    delete opened;
    return OpenUsbChannel(path);
}

void QVCloseChannelWithRelease(QV_CHANNEL channel, void* param, QV_RELEASE_CALLBACK release) {
    qv::CallerParam dropped(param, release);
    if (channel == nullptr) return;
    if (CQVCaptureBase* pcie = AsDevice(channel)->AsPcieChannel()) {
        if (pcie->DeferCloseToWorker(&dropped)) return;
        pcie->StopWorker();
    }
    AsDevice(channel)->CloseChannel();
    delete AsDevice(channel);
}

void QVCloseChannel(QV_CHANNEL channel) { QVCloseChannelWithRelease(channel, nullptr, nullptr); }

// ---- Operations of every channel -------------------------------------------------------------

QV_RESULT QVGetChannelInfo(QV_CHANNEL channel, _QVCAP_CHANNEL_INFO* info) {
    return Device(channel, &IQVCaptureDevice::GetChannelInfo, info);
}

QV_RESULT QVGetFamilyInfo(QV_CHANNEL channel, void* info, unsigned int size) {
    return Device(channel, &IQVCaptureDevice::GetFamilyInfo, info, size);
}

QV_RESULT QVGetVideoCaps(QV_CHANNEL channel, _QVCAP_VIDEO_CAPS* caps) {
    return Device(channel, &IQVCaptureDevice::GetVideoCaps, caps);
}

QV_RESULT QVGetAudioCaps(QV_CHANNEL channel, _QVCAP_AUDIO_CAPS* caps) {
    return Device(channel, &IQVCaptureDevice::GetAudioCaps, caps);
}

QV_RESULT QVSetLEDMode(QV_CHANNEL channel, unsigned int mode) {
    return Device(channel, &IQVCaptureDevice::SetLEDMode, mode);
}

QV_RESULT QVGetFirmwareStorageInfo(QV_CHANNEL channel, _QVCAP_FIRMWARE_STORAGE* storage) {
    if (storage == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return Device(channel, &IQVCaptureDevice::GetFirmwareStorageInfo, storage);
}

QV_RESULT QVEraseFirmwareData(QV_CHANNEL channel, unsigned int offset, unsigned int size) {
    return Device(channel, &IQVCaptureDevice::EraseFirmwareData, offset, size);
}

QV_RESULT QVWriteFirmwareData(QV_CHANNEL channel, unsigned int offset, unsigned char* buffer,
                              unsigned int size) {
    if (buffer == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return Device(channel, &IQVCaptureDevice::WriteFirmwareData, offset, buffer, size);
}

QV_RESULT QVReadFirmwareData(QV_CHANNEL channel, unsigned int offset, unsigned char* buffer,
                             unsigned int size, unsigned int* read) {
    if (buffer == nullptr || read == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return Device(channel, &IQVCaptureDevice::ReadFirmwareData, offset, buffer, size, read);
}

QV_RESULT QVGetTemperature(QV_CHANNEL channel, unsigned int* temperature) {
    return Pcie(channel, &CQVCaptureBase::GetTemperature, temperature);
}

QV_RESULT QVSetPostReconfig(QV_CHANNEL channel, unsigned int value) {
    return Pcie(channel, &CQVCaptureBase::SetPostReconfig, value);
}
