/* A program that supplies a transport to one device in its own memory, and does with it what
 * programs do. Compiled as C and as C++, linked with the shared library and with the archive. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "QVCapture.h"

typedef struct Device {
    unsigned char flash[8192];
    unsigned char led[4];
    int reading; /* the next firmware packet is a read */
    int open;
    int running;
} Device;

static void Expect(int holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "FAILED: %s\n", what);
    exit(1);
}

static unsigned Word(const unsigned char* bytes) {
    return bytes[0] | (unsigned)bytes[1] << 8 | (unsigned)bytes[2] << 16 | (unsigned)bytes[3] << 24;
}

static int Start(void* user) { return ((Device*)user)->running++; }
static void Stop(void* user) { ((Device*)user)->running--; }

static int Find(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity, void* user) {
    (void)user;
    Expect(capacity == QV_MAX_CHANNELS, "room for all channels");
    strcpy(entries[0].path, "/dev/null");
    strcpy(entries[0].info.familyName, "Tavo Capture");
    entries[0].info.productCode = 0x1234;
    entries[0].family.word8 = 7;
    return 1;
}

static int Open(const char* path, QV_USB_DEVICE* device, void* user) {
    Expect(strcmp(path, "/dev/null") == 0, "the path of the list");
    device->handle = user;
    return ((Device*)user)->open++;
}

static void Close(void* handle, void* user) {
    Expect(handle == user, "the handle of open");
    ((Device*)user)->open--;
}

static int Get(void* handle, unsigned char command, void* data, unsigned int size, void* user) {
    Device* device = (Device*)user;
    Expect(handle == user, "the handle of open");
    if (command != 0xFF || size != 4) return -1;
    memcpy(data, device->led, size);
    return (int)size;
}

static int Set(void* handle, unsigned char command, void* data, unsigned int size,
               unsigned int answered, void* user) {
    Device* device = (Device*)user;
    unsigned char* bytes = (unsigned char*)data;
    Expect(handle == user, "the handle of open");
    if (command == 0xF1) memset(device->flash + Word(bytes), 0xFF, Word(bytes + 4));
    if (command == 0xF4) bytes[0] = 0;
    if (command == 0xF3) {
        unsigned char* place = device->flash + Word(bytes);
        Expect(answered == (device->reading ? size : 0), "an answer to a read alone");
        if (device->reading)
            memcpy(bytes + 8, place, Word(bytes + 4));
        else
            memcpy(place, bytes + 8, Word(bytes + 4));
    }
    device->reading = command == 0xF2;
    if (command == 0x05) memcpy(device->led, bytes, size);
    return 0;
}

int main(void) {
    static Device device;
    QV_USB_TRANSPORT transport = {sizeof transport, Start, Stop, Find, Open, Close, Get, Set, NULL};
    unsigned char written[5000], read[5000];
    unsigned int got = 0;
    _QVUSBCAP_CAPTURE_INFO family;
    char path[512];
    Expect(QVSetUSBTransport(&transport, &device) == QV_RESULT_OK, "the transport is taken");
    Expect(QVCaptureInitInstance(), "there is an instance");
    Expect(QVSetUSBTransport(NULL, NULL) == QV_RESULT_FAILED, "too late for another");
    Expect(QVGetChannelCount() == 1 && device.running == 1, "one device is listed");
    Expect(QVGetDevicePath(0, path) == QV_RESULT_OK && strcmp(path, "/dev/null") == 0, "its path");
    Expect(QVGetFamilyInfoByIndex(0, &family) == QV_RESULT_OK && family.word8 == 7, "its record");
    QV_CHANNEL channel = QVOpenChannelByPath(path);
    Expect(channel != NULL && device.open == 1, "it opens");
    Expect(QVSetLEDMode(channel, 3) == QV_RESULT_OK && device.led[0] == 3, "a setting arrives");
    for (size_t i = 0; i < sizeof written; ++i) written[i] = (unsigned char)(i % 251);
    Expect(QVEraseFirmwareData(channel, 0, 8192) == QV_RESULT_OK, "it is erased");
    Expect(QVWriteFirmwareData(channel, 100, written, 5000) == QV_RESULT_OK, "it is written");
    Expect(QVReadFirmwareData(channel, 100, read, 5000, &got) == QV_RESULT_OK, "it is read");
    Expect(got == 5000 && memcmp(written, read, 5000) == 0, "what was written is read");
    Expect(device.flash[99] == 0xFF && device.flash[5100] == 0xFF, "and nothing else was written");
    QVCaptureExitInstance();
    Expect(device.running == 1 && device.open == 1, "an open channel keeps the transport");
    QVCloseChannel(channel);
    Expect(device.running == 0 && device.open == 0, "all is given back");
    Expect(QVSetUSBTransport(NULL, NULL) == QV_RESULT_OK, "it is taken away");
    Expect(QVCaptureInitInstance() && QVGetChannelCount() == 0, "and there is no device any more");
    QVCaptureExitInstance();
    puts("supplied");
    return 0;
}
