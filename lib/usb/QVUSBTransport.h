// The only place that touches USB: finding and opening devices, and one transfer per command.
//
// What is linked here is a placeholder that finds no device and fails every transfer; a working
// transport is another unit with the same functions in its place. No state, no lock.
#pragma once

#include "QVUSBRecords.h"

struct libusb_device_handle;

extern "C" {

// Reads size bytes of a command into data. Negative means failure.
int QVUSBGetData(libusb_device_handle* handle, unsigned char command, void* data,
                 unsigned int size);

// Sends size bytes of data as a command; the device's answer, to commands that have one, comes back
// in data. Negative means failure.
int QVUSBSetData(libusb_device_handle* handle, unsigned char command, void* data,
                 unsigned int size);

// Fills entries with the devices that are there. Returns how many, negative when it cannot tell.
int QVUSBFindDevices(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity);

// Opens a device that was found. The context comes from malloc and is the caller's, who ends with
// QVUSBCloseDevice and free; null when there is no such device.
_QVUSB_DEVICE_CONTEXT* QVUSBOpenDevice(const char* path);
void QVUSBCloseDevice(libusb_device_handle* handle);

}  // extern "C"
