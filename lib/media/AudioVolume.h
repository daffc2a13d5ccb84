// The ALSA sound card of a capture device, and its mixer volume.
//
// A PCIe channel has the sound card at its own place in the order of channels; a USB device is
// found by the bus line of its sound card. Knows paths, bus lines and product names, not channels.
// Prints nothing; functions return 0 on success and a negative value on failure. The process has
// one card table, which every look-up rebuilds without a lock: one thread.
#pragma once

#include <alsa/asoundlib.h>

#include "QVCaptureMedia.h"

inline constexpr int kMaxSoundCards = 128;
inline constexpr int kUsbAudioNodes = 8;

struct SOUND_CARD_INFO {
    char name[64];
    char id[64];      // folder under /proc/asound
    char device[32];  // "hw:<number>"
    char usbBus[32];  // first line of the card's usbbus file; empty for other cards
};

extern SOUND_CARD_INFO g_sndCards[kMaxSoundCards];
extern int32_t g_sndCount;

enum SOUND_CARD_DIRECTION : uint32_t {
    SOUND_CARD_CAPTURE = 1,
    SOUND_CARD_PLAYBACK = 2,
};

// Direction of every audio node of a USB device.
extern const SOUND_CARD_DIRECTION AUIDO_DATA_Flows[kUsbAudioNodes];

struct QVCAP_USB_AUDIO_NODE_ITEM {
    char element[32];   // mixer element; empty when the model has no such node
    int32_t pcmDevice;  // -1 when the node has no PCM device
};
struct QVCAP_USB_AUDIO_NODE_FILTER {
    char model[32];
    QVCAP_USB_AUDIO_NODE_ITEM nodes[kUsbAudioNodes];
};

// The models, in the order in which a product name is searched for them.
extern const QVCAP_USB_AUDIO_NODE_FILTER QVCAP_USB_AUDIO_NODE_FILTERS[4];

// Rebuilds the table. Cards that cannot be opened are left out.
void RefreshSoundCards();

// Exported under a private version, for the maker's own programs.
#pragma GCC visibility push(default)
extern "C" {

// 1 when the card's mixer has an active simple element of exactly that name, else 0.
int HasUSBCaptureSoundItem(const char* cardDevice, const char* elementName);

// Sets one channel's volume, in hundredths of a decibel rounded up, and the switch of all channels.
// cardDevice null means "default".
int SetSoundVolume(const char* cardDevice, SOUND_CARD_DIRECTION direction, const char* elementName,
                   snd_mixer_selem_channel_id_t channel, long value, int mute);

int SetQVUSBSoundVolume(const char* usbBus, const char* productName, _QVCAP_USB_AUDIO_NODE node,
                        int channel, long value, int mute);

// Outputs may be null; else 64 bytes for a card id and 32 for each of the others.
int GetUSBCaptureAudioPath(const char* usbBus, const char* productName, _QVCAP_USB_AUDIO_NODE node,
                           char* cardId, char* elementName, char* pcmDevice);
int GetPelixCaptureAudioPath(const char* devicePath, char* cardId, char* cardDevice,
                             char* pcmDevice);

// Every capture channel of the card's first mixer element, 0 to 100 over the element's own range.
// Both set the record's minimum and maximum to 0 and 100.
int SetPelixCaptureAudioVolume(const char* devicePath, _QVCAP_AUDIO_VOLUME* volume);
int GetPelixCaptureAudioVolume(const char* devicePath, _QVCAP_AUDIO_VOLUME* volume);

}  // extern "C"
#pragma GCC visibility pop
