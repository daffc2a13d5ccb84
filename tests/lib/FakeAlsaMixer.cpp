// The scripted ALSA: cards and the simple mixer; see FakeAlsa.h.
#include <alsa/asoundlib.h>

#include <algorithm>
#include <cstdio>

#include "lib/FakeAlsa.h"

using fake::Alsa;
using fake::Element;

struct _snd_ctl {
    fake::Card* card;
};
struct _snd_ctl_card_info {
    char name[80];
    char id[80];
};
struct _snd_mixer {
    fake::Card* card;
};
// Elements are handed out as pointers to the fake's own.
struct _snd_mixer_elem {
    char unused;
};

#define FAKE_CALL(...)                      \
    Alsa& alsa = Alsa::Get();               \
    const std::lock_guard lock(alsa.mutex); \
    int refused = 0;                        \
    if (alsa.Enter(__func__, std::string(__VA_ARGS__), &refused)) return refused

namespace {

Element* Own(snd_mixer_elem_t* element) { return reinterpret_cast<Element*>(element); }
snd_mixer_elem_t* HandOut(Element* element) { return reinterpret_cast<snd_mixer_elem_t*>(element); }

std::string Text(snd_mixer_selem_channel_id_t channel, long value) {
    return std::to_string(static_cast<int>(channel)) + ", " + std::to_string(value);
}

}  // namespace

extern "C" {

int snd_card_next(int* number) {
    FAKE_CALL(std::to_string(*number));
    size_t next = 0;
    while (next < alsa.cards.size() && alsa.cards[next].number <= *number) ++next;
    *number = next < alsa.cards.size() ? alsa.cards[next].number : -1;
    return 0;
}

int snd_ctl_open(snd_ctl_t** control, const char* name, int mode) {
    FAKE_CALL(std::string(name) + ", " + std::to_string(mode));
    *control = new snd_ctl_t{alsa.Attached(name)};
    ++alsa.controlsOpen;
    return 0;
}
int snd_ctl_close(snd_ctl_t* control) {
    FAKE_CALL();
    --alsa.controlsOpen;
    delete control;
    return 0;
}
size_t snd_ctl_card_info_sizeof(void) { return sizeof(snd_ctl_card_info_t); }
int snd_ctl_card_info(snd_ctl_t* control, snd_ctl_card_info_t* info) {
    FAKE_CALL();
    snprintf(info->name, sizeof info->name, "%s", control->card->name.c_str());
    snprintf(info->id, sizeof info->id, "%s", control->card->id.c_str());
    return 0;
}
const char* snd_ctl_card_info_get_name(const snd_ctl_card_info_t* info) { return info->name; }
const char* snd_ctl_card_info_get_id(const snd_ctl_card_info_t* info) { return info->id; }

int snd_mixer_open(snd_mixer_t** mixer, int mode) {
    FAKE_CALL(std::to_string(mode));
    *mixer = new snd_mixer_t{nullptr};
    ++alsa.mixersOpen;
    return 0;
}
int snd_mixer_attach(snd_mixer_t* mixer, const char* name) {
    FAKE_CALL(name);
    mixer->card = alsa.Attached(name);
    return mixer->card != nullptr ? 0 : -ENODEV;
}
int snd_mixer_detach(snd_mixer_t*, const char* name) {
    FAKE_CALL(name);
    return 0;
}
int snd_mixer_close(snd_mixer_t* mixer) {
    FAKE_CALL();
    --alsa.mixersOpen;
    delete mixer;
    return 0;
}
int snd_mixer_selem_register(snd_mixer_t*, snd_mixer_selem_regopt* options, snd_mixer_class_t**) {
    FAKE_CALL(options == nullptr ? "" : "options");
    return 0;
}
int snd_mixer_load(snd_mixer_t*) {
    FAKE_CALL();
    return 0;
}
snd_mixer_elem_t* snd_mixer_first_elem(snd_mixer_t* mixer) {
    std::vector<Element>& elements = mixer->card->elements;
    return elements.empty() ? nullptr : HandOut(&elements[0]);
}
snd_mixer_elem_t* snd_mixer_elem_next(snd_mixer_elem_t* element) {
    for (fake::Card& card : Alsa::Get().cards)
        for (size_t i = 0; i + 1 < card.elements.size(); ++i)
            if (&card.elements[i] == Own(element)) return HandOut(&card.elements[i + 1]);
    return nullptr;
}
snd_mixer_elem_type_t snd_mixer_elem_get_type(const snd_mixer_elem_t* element) {
    const bool simple = reinterpret_cast<const Element*>(element)->simple;
    return simple ? SND_MIXER_ELEM_SIMPLE : static_cast<snd_mixer_elem_type_t>(1);
}
int snd_mixer_selem_is_active(snd_mixer_elem_t* element) { return Own(element)->active; }
const char* snd_mixer_selem_get_name(snd_mixer_elem_t* element) {
    return Own(element)->name.c_str();
}
int snd_mixer_selem_has_capture_volume(snd_mixer_elem_t* element) {
    return Own(element)->captureVolume;
}
int snd_mixer_selem_has_playback_volume(snd_mixer_elem_t* element) {
    return Own(element)->playbackVolume;
}
int snd_mixer_selem_has_capture_channel(snd_mixer_elem_t* element,
                                        snd_mixer_selem_channel_id_t channel) {
    const std::vector<int>& channels = Own(element)->channels;
    return std::count(channels.begin(), channels.end(), static_cast<int>(channel)) != 0;
}

int snd_mixer_selem_set_capture_dB(snd_mixer_elem_t*, snd_mixer_selem_channel_id_t channel,
                                   long value, int direction) {
    FAKE_CALL(Text(channel, value) + ", " + std::to_string(direction));
    return 0;
}
int snd_mixer_selem_set_playback_dB(snd_mixer_elem_t*, snd_mixer_selem_channel_id_t channel,
                                    long value, int direction) {
    FAKE_CALL(Text(channel, value) + ", " + std::to_string(direction));
    return 0;
}
int snd_mixer_selem_set_capture_switch_all(snd_mixer_elem_t*, int on) {
    FAKE_CALL(std::to_string(on));
    return 0;
}
int snd_mixer_selem_set_playback_switch_all(snd_mixer_elem_t*, int on) {
    FAKE_CALL(std::to_string(on));
    return 0;
}

int snd_mixer_selem_get_capture_volume_range(snd_mixer_elem_t* element, long* minimum,
                                             long* maximum) {
    FAKE_CALL();
    *minimum = Own(element)->minimum;
    *maximum = Own(element)->maximum;
    return 0;
}
int snd_mixer_selem_set_capture_volume(snd_mixer_elem_t* element,
                                       snd_mixer_selem_channel_id_t channel, long value) {
    FAKE_CALL(Text(channel, value));
    Own(element)->volume[channel] = value;
    return 0;
}
int snd_mixer_selem_get_capture_volume(snd_mixer_elem_t* element,
                                       snd_mixer_selem_channel_id_t channel, long* value) {
    FAKE_CALL(std::to_string(static_cast<int>(channel)));
    *value = Own(element)->volume[channel];
    return 0;
}
int snd_mixer_selem_set_capture_switch(snd_mixer_elem_t* element,
                                       snd_mixer_selem_channel_id_t channel, int on) {
    FAKE_CALL(Text(channel, on));
    Own(element)->on[channel] = on;
    return 0;
}
int snd_mixer_selem_get_capture_switch(snd_mixer_elem_t* element,
                                       snd_mixer_selem_channel_id_t channel, int* on) {
    FAKE_CALL(std::to_string(static_cast<int>(channel)));
    *on = Own(element)->on[channel];
    return 0;
}

}  // extern "C"
