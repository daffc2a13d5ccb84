// Records of USB channels: the registry's, the open device's, and the payloads that only USB
// commands have, with their sizes checked.
//
// Packed payloads, little-endian, fixed-width; fields that only the device understands are byte
// arrays. Pure data, any thread.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "QVCaptureUSB.h"

struct libusb_device_handle;

// One open device; from malloc.
struct _QVUSB_DEVICE_CONTEXT {
    libusb_device_handle* handle;  // null: not open
    char usbBus[32];               // as in the usbbus file of the device's sound card
    char serial[32];
};

// The hot-plug watcher; the mutex guards the flag and the thread.
struct _QVUSB_HOTPLUG_ENTITY {
    uint32_t reserved;
    pthread_t thread;
    uint32_t running;
    pthread_mutex_t mutex;
    QVUSB_HOT_PLUG_CALLBACK callback;
    void* param;
};

// 32-bit settings that are sent as one byte.
typedef uint32_t _QVCAP_EDID_MODE;
typedef uint32_t _QVCAP_STATUS_IMAGE_MODE;
typedef uint32_t _QVCAP_DEVICE_NAME_MODE;

#pragma pack(push, 1)

struct _QVCAP_NOTIFY_ENABLE {
    uint8_t bytes[9];
};
struct _QVCAP_VIDEO_OUTPUT_FOURCC {
    uint8_t bytes[13];
};
struct _QVCAP_VIDEO_OUTPUT_FRAME_SIZE {
    uint8_t bytes[98];
};
struct _QVCAP_VIDEO_OUTPUT_FRAME_INTERVAL {
    uint8_t bytes[34];
};
struct _QVCAP_VIDEO_TIMING_ARRAY {
    uint8_t count;
    _QVCAP_VIDEO_TIMING timings[8];
};
struct _QVCAP_VIDEO_CUSTOM_TIMING_ARRAY {
    uint8_t count;
    _QVCAP_VIDEO_CUSTOM_TIMING timings[8];
};
struct _QVCAP_VIDEO_CUSTOM_RESOLUTION_ARRAY {
    uint8_t count;
    _QVCAP_VIDEO_CUSTOM_RESOLUTION resolutions[16];
};

namespace qv::usb {

inline constexpr int kMaxInputSources = 16;
inline constexpr unsigned kMaxWrite = 2048;  // bytes of firmware data in one packet

struct InputSources {
    uint8_t count;
    uint32_t codes[kMaxInputSources];
};

struct AspectRatio {
    int32_t x;
    int32_t y;
};

struct FirmwareRange {
    uint32_t address;
    uint32_t size;
};

// Firmware data to write, or a read request whose data comes back in the same place.
struct FirmwarePacket {
    FirmwareRange range;
    uint8_t data[kMaxWrite];
};

// _QVCAP_VIDEO_PROCESS_SETTINGS as it is sent.
struct ProcessSettings {
    uint32_t processMask;
    uint16_t left;
    uint16_t top;
    uint16_t right;
    uint16_t bottom;
    int32_t aspectX;
    int32_t aspectY;
    uint8_t lowLatency;
    uint8_t padding[3];
    uint32_t settings[5];
};

}  // namespace qv::usb

#pragma pack(pop)

static_assert(sizeof(_QVUSBCAP_CAPTURE_INFO) == 10);
static_assert(sizeof(_QVUSBCAP_CHANNEL_ENTRY) == 512 + 224 + 10);
static_assert(sizeof(_QVCAP_AUDIO_VOLUME) == 56);
static_assert(offsetof(_QVCAP_AUDIO_VOLUME, mute) == 8);
static_assert(offsetof(_QVCAP_AUDIO_VOLUME, volume) == 24);
static_assert(offsetof(qv::usb::FirmwarePacket, data) == 8);
static_assert(offsetof(qv::usb::ProcessSettings, left) == 4);
static_assert(offsetof(qv::usb::ProcessSettings, aspectX) == 12);
static_assert(offsetof(qv::usb::ProcessSettings, lowLatency) == 20);
static_assert(offsetof(qv::usb::ProcessSettings, settings) == 24);
