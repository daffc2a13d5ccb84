// The public functions of QVCaptureUSB.h.
#include "QVCaptureUSB.h"

#include "usb/QVUSBCaptureBase.h"

QV_RESULT QVSetUSBTransport(const QV_USB_TRANSPORT* transport, void* user) {
    return QVUSBSetTransport(transport, user);
}

QV_RESULT QVRegisterUSBHotPlug(QVUSB_HOT_PLUG_CALLBACK callback, void* param) {
    return CQVUSBCaptureControlBase::RegisterHotPlug(callback, param);
}

QV_RESULT QVUnregisterUSBHotPlug() { return CQVUSBCaptureControlBase::UnRegisterHotPlug(); }
