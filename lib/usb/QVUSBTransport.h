// The only way from the library to USB: the transport that the program supplied, or none.
//
// Without one nothing is found and every transfer fails. Devices are shared here: a path is open
// once, however many channels it has, and each device does one thing at a time. Searching, starting
// and stopping from one thread; everything else from any.
#pragma once

#include "QVUSBRecords.h"

// An open device of the transport's; made, shared and closed in this unit.
struct libusb_device_handle;

// As QVSetUSBTransport().
QV_RESULT QVUSBSetTransport(const QV_USB_TRANSPORT* transport, void* user);

// The instance begins: QV_RESULT_FAILED when there is no transport or it cannot start.
QV_RESULT QVUSBStart();
// It has ended; the transport stops when no device is open any more.
void QVUSBStop();

// Reads size bytes of a command into data. Negative means failure.
int QVUSBGetData(libusb_device_handle* handle, unsigned char command, void* data,
                 unsigned int size);

// Sends size bytes of data as a command; answered bytes come back in data. Negative means failure.
int QVUSBSetData(libusb_device_handle* handle, unsigned char command, void* data, unsigned int size,
                 unsigned int answered = 0);

// While one exists, no other thread's transfer reaches the device. Transfers of its own do.
class QVUSBAlone {
  public:
    explicit QVUSBAlone(libusb_device_handle* handle);
    ~QVUSBAlone();
    QVUSBAlone(const QVUSBAlone&) = delete;
    QVUSBAlone& operator=(const QVUSBAlone&) = delete;

  private:
    pthread_mutex_t* m_order;
};

// Fills entries, all zeros, with the devices that are there. Returns how many were filled in,
// negative when the transport cannot tell.
int QVUSBFindDevices(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity);

// Opens a device that was found. The context comes from malloc and is the caller's, who ends with
// QVUSBCloseDevice and free; null when there is no such device.
_QVUSB_DEVICE_CONTEXT* QVUSBOpenDevice(const char* path);
void QVUSBCloseDevice(libusb_device_handle* handle);

// Whether QVUSBWaitHotPlug can be asked, which waits as QV_USB_HOT_PLUG says.
bool QVUSBCanWatch();
int QVUSBWaitHotPlug(int milliseconds, _QVUSBHOT_PLUG_EVETN* event, char* path);
