/* The request numbers here are INVENTED; somebody with a real device must find out its own.
 *
 * A transport over libusb-1.0: finds devices on the bus, opens one for this process only, and
 * sends each transfer as a vendor request on endpoint 0. See qvcapture-usb(3). The simulated
 * devices of qvcap-sim answer it. */
#include "usb_transport.h"

#include <libusb-1.0/libusb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum {
    kVendor = 0x1209,
    kProduct = 0x0001,
    kGet = 1, /* requests; the command is their value */
    kSet = 2,
    kAnswer = 3, /* fetches the answer to the set before it */
    kBusyPoll = 0xF4,
    kTimeoutMs = 2000,
    kPollPauseUs = 1000
};

/* Transfers all bytes, or fails. */
static int Request(libusb_device_handle* handle, unsigned in, unsigned char request,
                   unsigned char command, void* data, unsigned size) {
    const unsigned char type =
        (unsigned char)(in | LIBUSB_REQUEST_TYPE_VENDOR | LIBUSB_RECIPIENT_DEVICE);
    const int done = libusb_control_transfer(handle, type, request, command, 0,
                                             (unsigned char*)data, (uint16_t)size, kTimeoutMs);
    return done == (int)size ? 0 : -1;
}

/* An open device. Each device and each search has its own context: a new context sees what is
 * plugged in now, even without udev. */
typedef struct Device {
    libusb_context* context;
    libusb_device_handle* handle;
} Device;

static int Get(void* handle, unsigned char command, void* data, unsigned int size, void* user) {
    (void)user;
    return Request(((Device*)handle)->handle, LIBUSB_ENDPOINT_IN, kGet, command, data, size);
}

static int Set(void* handle, unsigned char command, void* data, unsigned int size,
               unsigned int answered, void* user) {
    libusb_device_handle* device = ((Device*)handle)->handle;
    (void)user;
    if (Request(device, LIBUSB_ENDPOINT_OUT, kSet, command, data, size) != 0) return -1;
    if (answered == 0) return 0;
    if (Request(device, LIBUSB_ENDPOINT_IN, kAnswer, command, data, answered) != 0) return -1;
    if (command == kBusyPoll && *(unsigned char*)data != 0) usleep(kPollPauseUs);
    return 0;
}

static void PathOf(libusb_device* device, char* path, size_t size) {
    snprintf(path, size, "/dev/bus/usb/%03d/%03d", libusb_get_bus_number(device),
             libusb_get_device_address(device));
}

/* Whether it is a device of the family and reports its identity. */
static int Identify(libusb_device* device, _QVUSBCAP_CHANNEL_ENTRY* entry) {
    struct libusb_device_descriptor descriptor;
    Device opened = {NULL, NULL};
    int known;
    if (libusb_get_device_descriptor(device, &descriptor) != 0) return 0;
    if (descriptor.idVendor != kVendor || descriptor.idProduct != kProduct) return 0;
    if (libusb_open(device, &opened.handle) != 0) return 0;
    known = Get(&opened, 0x01, &entry->info, sizeof entry->info, NULL) == 0 &&
            Get(&opened, 0x02, &entry->family, sizeof entry->family, NULL) == 0;
    libusb_close(opened.handle);
    PathOf(device, entry->path, sizeof entry->path);
    return known;
}

static int ByPath(const void* left, const void* right) {
    return strcmp(((const _QVUSBCAP_CHANNEL_ENTRY*)left)->path,
                  ((const _QVUSBCAP_CHANNEL_ENTRY*)right)->path);
}

static int Find(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity, void* user) {
    libusb_context* context;
    libusb_device** devices;
    int found = 0;
    (void)user;
    if (libusb_init(&context) != 0) return -1;
    const ssize_t count = libusb_get_device_list(context, &devices);
    for (ssize_t i = 0; i < count && found < capacity; ++i)
        if (Identify(devices[i], &entries[found])) ++found;
    if (found < capacity) memset(&entries[found], 0, sizeof entries[found]);
    if (count >= 0) libusb_free_device_list(devices, 1);
    libusb_exit(context);
    qsort(entries, (size_t)found, sizeof *entries, ByPath); /* the same order each time */
    return count < 0 ? -1 : found;
}

/* Enough for a list. The rest is for open channels. */

/* The interface to claim: its owner owns the device. */
static int ControlInterface(libusb_device* device) {
    struct libusb_config_descriptor* configuration;
    int number = -1;
    if (libusb_get_active_config_descriptor(device, &configuration) != 0) return -1;
    for (int i = 0; i < configuration->bNumInterfaces; ++i) {
        const struct libusb_interface_descriptor* interface =
            configuration->interface[i].altsetting;
        if (interface->bInterfaceClass == LIBUSB_CLASS_VENDOR_SPEC)
            number = interface->bInterfaceNumber;
    }
    libusb_free_config_descriptor(configuration);
    return number;
}

/* Opens and claims it; fails for a device that another process uses, or that is going away. */
static libusb_device_handle* Claim(libusb_device* device, QV_USB_DEVICE* opened) {
    struct libusb_device_descriptor descriptor;
    libusb_device_handle* handle;
    const int interface = ControlInterface(device);
    if (interface < 0 || libusb_open(device, &handle) != 0) return NULL;
    if (libusb_claim_interface(handle, interface) == 0 &&
        libusb_get_device_descriptor(device, &descriptor) == 0 &&
        libusb_get_string_descriptor_ascii(handle, descriptor.iSerialNumber,
                                           (unsigned char*)opened->serial,
                                           sizeof opened->serial) >= 0) {
        snprintf(opened->usbBus, sizeof opened->usbBus, "%03d/%03d", libusb_get_bus_number(device),
                 libusb_get_device_address(device));
        return handle;
    }
    libusb_close(handle);
    return NULL;
}

static void Close(void* handle, void* user) {
    Device* device = (Device*)handle;
    (void)user;
    if (device->handle != NULL) libusb_close(device->handle); /* and gives the interface back */
    libusb_exit(device->context);
    free(device);
}

static int Open(const char* path, QV_USB_DEVICE* opened, void* user) {
    Device* device = (Device*)calloc(1, sizeof(Device));
    libusb_device** devices;
    if (device == NULL || libusb_init(&device->context) != 0) {
        free(device);
        return -1;
    }
    const ssize_t count = libusb_get_device_list(device->context, &devices);
    for (ssize_t i = 0; i < count; ++i) {
        char other[64];
        PathOf(devices[i], other, sizeof other);
        if (strcmp(path, other) == 0) device->handle = Claim(devices[i], opened);
    }
    if (count >= 0) libusb_free_device_list(devices, 1);
    if (device->handle == NULL) {
        Close(device, user);
        return -1;
    }
    opened->handle = device;
    return 0;
}

const QV_USB_TRANSPORT usb_transport = {
    sizeof(QV_USB_TRANSPORT), NULL, NULL, Find, Open, Close, Get, Set, NULL};
