// The only way from the library to USB: the transport that the program supplied, or none.
//
// Without a transport nothing is found and every transfer fails. Devices are shared here: a path is
// open once, however many channels it has, and each device makes one transfer at a time. Search,
// start and stop from one thread; everything else from any.
#pragma once

#include "QVUSBRecords.h"

// An open device of the transport; this unit makes, shares and closes it.
struct libusb_device_handle;

// As QVSetUSBTransport().
QV_RESULT QVUSBSetTransport(const QV_USB_TRANSPORT* transport, void* user);

// Called when the instance begins. QV_RESULT_FAILED when there is no transport or it cannot start.
QV_RESULT QVUSBStart();
// Called when the instance has ended; the transport stops when no device is open any more.
void QVUSBStop();

// Reads size bytes of a command into data. Negative means failure.
int QVUSBGetData(libusb_device_handle* handle, unsigned char command, void* data,
                 unsigned int size);

// Sends size bytes of data as a command; answered bytes come back in data. Negative means failure.
int QVUSBSetData(libusb_device_handle* handle, unsigned char command, void* data, unsigned int size,
                 unsigned int answered = 0);

// While one exists, only its own thread's transfers reach the device.
class QVUSBAlone {
  public:
    explicit QVUSBAlone(libusb_device_handle* handle);
    ~QVUSBAlone();
    QVUSBAlone(const QVUSBAlone&) = delete;
    QVUSBAlone& operator=(const QVUSBAlone&) = delete;

  private:
    pthread_mutex_t* m_order;
};

// Fills entries, all zeros, with the connected devices. Returns how many were filled in, negative
// when the transport's search fails.
int QVUSBFindDevices(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity);

// Opens a device that was found. The context comes from malloc; the caller owns it and ends with
// QVUSBCloseDevice and free. Null when there is no such device.
_QVUSB_DEVICE_CONTEXT* QVUSBOpenDevice(const char* path);
void QVUSBCloseDevice(libusb_device_handle* handle);

// Whether QVUSBWaitHotPlug may be called; it waits as described at QV_USB_HOT_PLUG.
bool QVUSBCanWatch();
int QVUSBWaitHotPlug(int milliseconds, _QVUSBHOT_PLUG_EVETN* event, char* path);
