// Sound-card table, model table and mixer volume; see AudioVolume.h.
#include "AudioVolume.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "FirstLine.h"
#include "pcie/QVPelixCapture.h"

SOUND_CARD_INFO g_sndCards[kMaxSoundCards];
int32_t g_sndCount;

const SOUND_CARD_DIRECTION AUIDO_DATA_Flows[kUsbAudioNodes] = {
    SOUND_CARD_CAPTURE, SOUND_CARD_PLAYBACK, SOUND_CARD_CAPTURE, SOUND_CARD_PLAYBACK,
    SOUND_CARD_CAPTURE, SOUND_CARD_PLAYBACK, SOUND_CARD_CAPTURE, SOUND_CARD_PLAYBACK,
};

// Nodes 0 to 7 of each model: two lines of four.
// clang-format off
const QVCAP_USB_AUDIO_NODE_FILTER QVCAP_USB_AUDIO_NODE_FILTERS[4] = {
    {"Tavo Capture HDMI", {{"Mic", 1},         {"Headphone", 0}, {"", -1},         {"", -1},
                           {"HDMI", 0},        {"HDMI", -1},     {"Computer", 2},  {"Computer", -1}}},
    {"Tavo Capture SDI",  {{"", -1},           {"", -1},         {"Line In", 1},   {"", -1},
                           {"SDI", 0},         {"", -1},         {"", -1},         {"", -1}}},
    {"Tavo Capture DVI",  {{"", -1},           {"", -1},         {"Line In", 1},   {"", -1},
                           {"HDMI", 0},        {"", -1},         {"", -1},         {"", -1}}},
    {"Tavo Capture AIO",  {{"", -1},           {"", -1},         {"Analog", 1},    {"", -1},
                           {"Digital", 0},     {"", -1},         {"", -1},         {"", -1}}},
};
// clang-format on

namespace {

constexpr int kFailed = -1;
constexpr int kPathSize = 256;
constexpr int kLastChannelId = 30;  // of the ids that ALSA numbers
constexpr int kRoundUp = 1;
constexpr int16_t kScale = 100;  // volumes of PCIe channels go from 0 to this

template <size_t size>
void Copy(char (&out)[size], const char* text) {
    snprintf(out, size, "%s", text);
}

// A mixer that is open during one call.
class Mixer {
  public:
    // result() is the first negative result, else that of the last step.
    explicit Mixer(const char* cardDevice) : m_device(cardDevice) {
        m_result = snd_mixer_open(&m_handle, 0);
        if (m_result < 0) {
            m_handle = nullptr;
            return;
        }
        m_result = snd_mixer_attach(m_handle, m_device);
        m_attached = m_result >= 0;
        if (m_result >= 0) m_result = snd_mixer_selem_register(m_handle, nullptr, nullptr);
        if (m_result >= 0) m_result = snd_mixer_load(m_handle);
    }
    ~Mixer() {
        if (m_attached) snd_mixer_detach(m_handle, m_device);
        if (m_handle != nullptr) snd_mixer_close(m_handle);
        snd_config_update_free_global();
    }
    Mixer(const Mixer&) = delete;
    Mixer& operator=(const Mixer&) = delete;

    int Result() const { return m_result; }

    // The first element if it is simple and active, else null.
    snd_mixer_elem_t* First() const {
        if (m_result < 0) return nullptr;
        snd_mixer_elem_t* element = snd_mixer_first_elem(m_handle);
        return element != nullptr && IsUsable(element) ? element : nullptr;
    }

    // The first simple and active element of exactly this name, else null.
    snd_mixer_elem_t* Find(const char* name) const {
        if (m_result < 0) return nullptr;
        for (snd_mixer_elem_t* element = snd_mixer_first_elem(m_handle); element != nullptr;
             element = snd_mixer_elem_next(element))
            if (IsUsable(element) && strcmp(snd_mixer_selem_get_name(element), name) == 0)
                return element;
        return nullptr;
    }

  private:
    static bool IsUsable(snd_mixer_elem_t* element) {
        return snd_mixer_elem_get_type(element) == SND_MIXER_ELEM_SIMPLE &&
               snd_mixer_selem_is_active(element);
    }

    const char* m_device;
    snd_mixer_t* m_handle = nullptr;
    bool m_attached = false;
    int m_result;
};

// Fills all but the bus of a table entry.
bool DescribeCard(int number, SOUND_CARD_INFO* card) {
    char device[sizeof card->device];
    snprintf(device, sizeof device, "hw:%d", number);
    snd_ctl_t* control = nullptr;
    if (snd_ctl_open(&control, device, 0) < 0) return false;
    snd_ctl_card_info_t* info = nullptr;
    snd_ctl_card_info_alloca(&info);
    const int result = snd_ctl_card_info(control, info);
    snd_ctl_close(control);
    if (result < 0) return false;
    Copy(card->device, device);
    Copy(card->name, snd_ctl_card_info_get_name(info));
    Copy(card->id, snd_ctl_card_info_get_id(info));
    return true;
}

const SOUND_CARD_INFO* FindCardOnBus(const char* usbBus) {
    if (usbBus == nullptr || usbBus[0] == '\0') return nullptr;
    RefreshSoundCards();
    for (int i = 0; i < g_sndCount; ++i)
        if (strcmp(g_sndCards[i].usbBus, usbBus) == 0) return &g_sndCards[i];
    return nullptr;
}

const QVCAP_USB_AUDIO_NODE_ITEM* FindNode(const char* productName, _QVCAP_USB_AUDIO_NODE node) {
    if (productName == nullptr || node >= kUsbAudioNodes) return nullptr;
    for (const QVCAP_USB_AUDIO_NODE_FILTER& row : QVCAP_USB_AUDIO_NODE_FILTERS)
        if (strstr(productName, row.model) != nullptr) return &row.nodes[node];
    return nullptr;
}

// "hw:<card>,<device>" into 32 bytes; a card device has at most 14 characters.
void NamePcm(const SOUND_CARD_INFO& card, int pcmDevice, char* out) {
    snprintf(out, sizeof card.device, "%.14s,%d", card.device, pcmDevice);
}

int FindPcieChannel(const char* devicePath) {
    const int count = CQVCaptureControlBase::GetChannelCount();
    for (int i = 0; devicePath != nullptr && i < count; ++i) {
        char path[kPathSize] = {};
        if (CQVCaptureControlBase::GetDevicePath(i, path) == QV_RESULT_OK &&
            strcmp(path, devicePath) == 0)
            return i;
    }
    return kFailed;
}

bool IsPcieCard(const SOUND_CARD_INFO& card) {
    return strstr(card.name, "Pelix Capture") != nullptr ||
           strstr(card.name, "Lumo Capture") != nullptr;
}

// Raw range of a capture control, limited to 32 bits, the width of every control, so that products
// fit 64.
struct CaptureRange {
    long minimum = 0;
    long maximum = 0;

    static long Bound(long value) { return std::clamp<long>(value, INT32_MIN, INT32_MAX); }
    void Bound() {
        minimum = Bound(minimum);
        maximum = Bound(maximum);
    }

    int64_t Width() const { return int64_t{maximum} - minimum; }
    long ToRaw(int16_t volume) const {
        return static_cast<long>(volume * Width() / kScale + minimum);
    }
    int16_t FromRaw(long value) const {
        if (Width() == 0) return 0;
        return static_cast<int16_t>((int64_t{Bound(value)} - minimum) * kScale / Width());
    }
};

void SetChannel(snd_mixer_elem_t* element, snd_mixer_selem_channel_id_t id,
                const CaptureRange& range, int i, _QVCAP_AUDIO_VOLUME* volume) {
    snd_mixer_selem_set_capture_volume(element, id, range.ToRaw(volume->volume[i]));
    snd_mixer_selem_set_capture_switch(element, id, volume->mute[i] == 0);
}

void GetChannel(snd_mixer_elem_t* element, snd_mixer_selem_channel_id_t id,
                const CaptureRange& range, int i, _QVCAP_AUDIO_VOLUME* volume) {
    long value = range.minimum;
    int on = 1;
    snd_mixer_selem_get_capture_volume(element, id, &value);
    snd_mixer_selem_get_capture_switch(element, id, &on);
    volume->volume[i] = range.FromRaw(value);
    volume->mute[i] = !on;
}

using ChannelAction = void (*)(snd_mixer_elem_t*, snd_mixer_selem_channel_id_t, const CaptureRange&,
                               int, _QVCAP_AUDIO_VOLUME*);

// Runs the action on every capture channel of the card's first element and counts them; if that
// element is unusable, does nothing and returns the result of loading the mixer.
int ForEachCaptureChannel(const char* devicePath, _QVCAP_AUDIO_VOLUME* volume, ChannelAction action,
                          int* channels) {
    if (devicePath == nullptr || volume == nullptr) return kFailed;
    char cardDevice[sizeof SOUND_CARD_INFO::device];
    const int found = GetPelixCaptureAudioPath(devicePath, nullptr, cardDevice, nullptr);
    if (found < 0) return found;
    const Mixer mixer(cardDevice);
    snd_mixer_elem_t* element = mixer.First();
    if (element == nullptr || !snd_mixer_selem_has_capture_volume(element)) return mixer.Result();
    CaptureRange range;
    snd_mixer_selem_get_capture_volume_range(element, &range.minimum, &range.maximum);
    range.Bound();
    volume->minimum = 0;  // Deliberate: also in a set
    volume->maximum = kScale;
    int i = 0;
    for (int id = 0; id <= kLastChannelId && i < QV_AUDIO_VOLUME_CHANNELS; ++id) {
        const auto channel = static_cast<snd_mixer_selem_channel_id_t>(id);
        if (!snd_mixer_selem_has_capture_channel(element, channel)) continue;
        action(element, channel, range, i, volume);
        ++i;
    }
    *channels = i;
    return 0;
}

}  // namespace

void RefreshSoundCards() {
    memset(g_sndCards, 0, sizeof g_sndCards);
    g_sndCount = 0;
    int number = -1;
    while (g_sndCount < kMaxSoundCards && snd_card_next(&number) >= 0 && number >= 0) {
        SOUND_CARD_INFO* card = &g_sndCards[g_sndCount];
        if (!DescribeCard(number, card)) continue;
        char path[kPathSize];
        snprintf(path, sizeof path, "/proc/asound/%s/usbbus", card->id);
        qv::ReadFirstLine(path, card->usbBus, sizeof card->usbBus);
        ++g_sndCount;
    }
    snd_config_update_free_global();
}

int HasUSBCaptureSoundItem(const char* cardDevice, const char* elementName) {
    if (cardDevice == nullptr || elementName == nullptr) return 0;
    return Mixer(cardDevice).Find(elementName) != nullptr;
}

int SetSoundVolume(const char* cardDevice, SOUND_CARD_DIRECTION direction, const char* elementName,
                   snd_mixer_selem_channel_id_t channel, long value, int mute) {
    if (elementName == nullptr || elementName[0] == '\0') return kFailed;
    const Mixer mixer(cardDevice != nullptr ? cardDevice : "default");
    snd_mixer_elem_t* element = mixer.Find(elementName);
    if (element == nullptr) return kFailed;
    int result = kFailed;
    if ((direction & SOUND_CARD_CAPTURE) && snd_mixer_selem_has_capture_volume(element)) {
        snd_mixer_selem_set_capture_dB(element, channel, value, kRoundUp);
        result = snd_mixer_selem_set_capture_switch_all(element, !mute);
    }
    if ((direction & SOUND_CARD_PLAYBACK) && snd_mixer_selem_has_playback_volume(element)) {
        snd_mixer_selem_set_playback_dB(element, channel, value, kRoundUp);
        result = snd_mixer_selem_set_playback_switch_all(element, !mute);
    }
    return result;
}

int SetQVUSBSoundVolume(const char* usbBus, const char* productName, _QVCAP_USB_AUDIO_NODE node,
                        int channel, long value, int mute) {
    const SOUND_CARD_INFO* card = FindCardOnBus(usbBus);
    if (card == nullptr) return kFailed;
    const QVCAP_USB_AUDIO_NODE_ITEM* item = FindNode(productName, node);
    if (item == nullptr) return kFailed;
    return SetSoundVolume(card->device, AUIDO_DATA_Flows[node], item->element,
                          static_cast<snd_mixer_selem_channel_id_t>(channel), value, mute);
}

int GetUSBCaptureAudioPath(const char* usbBus, const char* productName, _QVCAP_USB_AUDIO_NODE node,
                           char* cardId, char* elementName, char* pcmDevice) {
    const SOUND_CARD_INFO* card = FindCardOnBus(usbBus);
    if (card == nullptr) return kFailed;
    const QVCAP_USB_AUDIO_NODE_ITEM* item = FindNode(productName, node);
    if (item == nullptr || !HasUSBCaptureSoundItem(card->device, item->element) ||
        item->pcmDevice < 0)
        return kFailed;
    if (cardId != nullptr) strcpy(cardId, card->id);
    if (elementName != nullptr) strcpy(elementName, item->element);
    if (pcmDevice != nullptr) NamePcm(*card, item->pcmDevice, pcmDevice);
    return 0;
}

int GetPelixCaptureAudioPath(const char* devicePath, char* cardId, char* cardDevice,
                             char* pcmDevice) {
    int place = FindPcieChannel(devicePath);
    if (place < 0) return kFailed;
    RefreshSoundCards();
    for (int i = 0; i < g_sndCount; ++i) {
        const SOUND_CARD_INFO& card = g_sndCards[i];
        if (!IsPcieCard(card) || place-- > 0) continue;
        if (cardId != nullptr) strcpy(cardId, card.id);
        if (cardDevice != nullptr) strcpy(cardDevice, card.device);
        if (pcmDevice != nullptr) NamePcm(card, 0, pcmDevice);
        return 0;
    }
    return kFailed;
}

int SetPelixCaptureAudioVolume(const char* devicePath, _QVCAP_AUDIO_VOLUME* volume) {
    int channels = 0;  // Deliberate: the record's own count is kept
    return ForEachCaptureChannel(devicePath, volume, SetChannel, &channels);
}

int GetPelixCaptureAudioVolume(const char* devicePath, _QVCAP_AUDIO_VOLUME* volume) {
    int channels = -1;
    const int result = ForEachCaptureChannel(devicePath, volume, GetChannel, &channels);
    if (result == 0 && channels >= 0) volume->channelCount = static_cast<uint8_t>(channels);
    return result;
}
