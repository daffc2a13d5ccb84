// The placeholder transport: there is no device; see QVUSBTransport.h.
#include "QVUSBTransport.h"

namespace {
constexpr int kFailed = -1;
}

int QVUSBGetData(libusb_device_handle*, unsigned char, void*, unsigned int) { return kFailed; }
int QVUSBSetData(libusb_device_handle*, unsigned char, void*, unsigned int) { return kFailed; }
int QVUSBFindDevices(_QVUSBCAP_CHANNEL_ENTRY*, int) { return kFailed; }
_QVUSB_DEVICE_CONTEXT* QVUSBOpenDevice(const char*) { return nullptr; }
void QVUSBCloseDevice(libusb_device_handle*) {}
