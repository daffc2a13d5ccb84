// The scripted ALSA: the PCM functions; see FakeAlsa.h.
#include <alsa/asoundlib.h>

#include <cstring>

#include "lib/FakeAlsa.h"

using fake::Alsa;

struct _snd_pcm {
    int direction;
    uint32_t nextFrame;
};
struct _snd_pcm_hw_params {
    int unused;
};
struct _snd_pcm_sw_params {
    int unused;
};
struct _snd_pcm_status {
    snd_pcm_state_t state;
};

// Opens every fake function: the lock, the log line and a possible refusal.
#define FAKE_CALL(...)                      \
    Alsa& alsa = Alsa::Get();               \
    const std::lock_guard lock(alsa.mutex); \
    int refused = 0;                        \
    if (alsa.Enter(__func__, std::string(__VA_ARGS__), &refused)) return refused

namespace {

template <class Value>
Value Next(std::deque<Value>& script, Value otherwise) {
    if (script.empty()) return otherwise;
    const Value value = script.front();
    script.pop_front();
    return value;
}

}  // namespace

extern "C" {

int snd_config_update_free_global(void) {
    FAKE_CALL();
    return 0;
}

int snd_pcm_open(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t stream, int mode) {
    FAKE_CALL(std::string(name) +
              (stream == SND_PCM_STREAM_CAPTURE ? ", capture, " : ", playback, ") +
              std::to_string(mode));
    *pcm = new snd_pcm_t{static_cast<int>(stream), 0};
    ++alsa.pcmsOpen;
    return 0;
}

int snd_pcm_close(snd_pcm_t* pcm) {
    // A refused close still ends the handle, as the real one does.
    {
        const std::lock_guard lock(Alsa::Get().mutex);
        --Alsa::Get().pcmsOpen;
        delete pcm;
    }
    FAKE_CALL();
    return 0;
}

int snd_pcm_start(snd_pcm_t*) {
    FAKE_CALL();
    return 0;
}
int snd_pcm_drop(snd_pcm_t*) {
    FAKE_CALL();
    return 0;
}
int snd_pcm_drain(snd_pcm_t*) {
    FAKE_CALL();
    return 0;
}
int snd_pcm_prepare(snd_pcm_t*) {
    FAKE_CALL();
    return 0;
}
int snd_pcm_resume(snd_pcm_t*) {
    FAKE_CALL();
    return 0;
}
int snd_pcm_recover(snd_pcm_t*, int error, int silent) {
    FAKE_CALL(std::to_string(error) + ", " + std::to_string(silent));
    return 0;
}

snd_pcm_sframes_t snd_pcm_avail_update(snd_pcm_t*) {
    FAKE_CALL();
    return Next(alsa.available, alsa.defaultAvailable);
}

snd_pcm_state_t snd_pcm_state(snd_pcm_t*) {
    Alsa& alsa = Alsa::Get();
    const std::lock_guard lock(alsa.mutex);
    return static_cast<snd_pcm_state_t>(Next<int>(alsa.states, SND_PCM_STATE_RUNNING));
}

int snd_pcm_status(snd_pcm_t*, snd_pcm_status_t* status) {
    FAKE_CALL();
    status->state =
        static_cast<snd_pcm_state_t>(Next<int>(alsa.statusStates, SND_PCM_STATE_RUNNING));
    return 0;
}
size_t snd_pcm_status_sizeof(void) { return sizeof(snd_pcm_status_t); }
snd_pcm_state_t snd_pcm_status_get_state(const snd_pcm_status_t* status) { return status->state; }

// Frames are numbered: every 32-bit word of a delivered frame holds its number.
snd_pcm_sframes_t snd_pcm_readi(snd_pcm_t* pcm, void* buffer, snd_pcm_uframes_t frames) {
    FAKE_CALL(std::to_string(frames));
    const long result = Next<long>(alsa.reads, static_cast<long>(frames));
    const size_t sampleBytes = alsa.format == SND_PCM_FORMAT_S32_LE ? 4 : 2;
    const size_t frameBytes = alsa.channels * sampleBytes;
    for (long i = 0; i < result; ++i) {
        const uint32_t number = pcm->nextFrame++;
        memcpy(static_cast<unsigned char*>(buffer) + static_cast<size_t>(i) * frameBytes, &number,
               std::min(frameBytes, sizeof number));
    }
    return result;
}

snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t*, const void* buffer, snd_pcm_uframes_t frames) {
    FAKE_CALL(std::to_string(frames));
    const size_t sampleBytes = alsa.format == SND_PCM_FORMAT_S32_LE ? 4 : 2;
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    alsa.written.push_back({{bytes, bytes + frames * alsa.channels * sampleBytes}, frames});
    return Next<long>(alsa.writes, static_cast<long>(frames));
}

ssize_t snd_pcm_frames_to_bytes(snd_pcm_t*, snd_pcm_sframes_t frames) {
    FAKE_CALL(std::to_string(frames));
    return frames * alsa.frameBytes;
}

size_t snd_pcm_hw_params_sizeof(void) { return sizeof(snd_pcm_hw_params_t); }
size_t snd_pcm_sw_params_sizeof(void) { return sizeof(snd_pcm_sw_params_t); }

int snd_pcm_hw_params_any(snd_pcm_t*, snd_pcm_hw_params_t*) {
    FAKE_CALL();
    return 0;
}
int snd_pcm_hw_params_set_access(snd_pcm_t*, snd_pcm_hw_params_t*, snd_pcm_access_t access) {
    FAKE_CALL(access == SND_PCM_ACCESS_RW_INTERLEAVED ? "interleaved" : "other");
    return 0;
}
int snd_pcm_hw_params_set_format(snd_pcm_t*, snd_pcm_hw_params_t*, snd_pcm_format_t format) {
    FAKE_CALL(format == SND_PCM_FORMAT_S32_LE   ? "S32_LE"
              : format == SND_PCM_FORMAT_S16_LE ? "S16_LE"
                                                : "other");
    alsa.format = format;
    return 0;
}
int snd_pcm_hw_params_set_channels(snd_pcm_t*, snd_pcm_hw_params_t*, unsigned channels) {
    FAKE_CALL(std::to_string(channels));
    alsa.channels = channels;
    return 0;
}
int snd_pcm_hw_params_set_rate_near(snd_pcm_t*, snd_pcm_hw_params_t*, unsigned* rate,
                                    int* direction) {
    FAKE_CALL(std::to_string(*rate) + ", " + std::to_string(*direction));
    alsa.rate = *rate;
    return 0;
}
int snd_pcm_hw_params(snd_pcm_t*, snd_pcm_hw_params_t*) {
    FAKE_CALL();
    return 0;
}
int snd_pcm_hw_params_get_period_size(const snd_pcm_hw_params_t*, snd_pcm_uframes_t* frames, int*) {
    FAKE_CALL();
    *frames = alsa.periodSize;
    return 0;
}
int snd_pcm_hw_params_get_periods(const snd_pcm_hw_params_t*, unsigned* count, int*) {
    FAKE_CALL();
    *count = alsa.periodCount;
    return 0;
}
int snd_pcm_hw_params_current(snd_pcm_t*, snd_pcm_hw_params_t*) {
    FAKE_CALL();
    return 0;
}
int snd_pcm_hw_params_get_buffer_size(const snd_pcm_hw_params_t*, snd_pcm_uframes_t* frames) {
    FAKE_CALL();
    *frames = alsa.bufferSize;
    return 0;
}

int snd_pcm_sw_params_current(snd_pcm_t*, snd_pcm_sw_params_t*) {
    FAKE_CALL();
    return 0;
}
int snd_pcm_sw_params_set_start_threshold(snd_pcm_t*, snd_pcm_sw_params_t*,
                                          snd_pcm_uframes_t frames) {
    FAKE_CALL(std::to_string(frames));
    alsa.startThreshold = frames;
    return 0;
}
int snd_pcm_sw_params_set_stop_threshold(snd_pcm_t*, snd_pcm_sw_params_t*,
                                         snd_pcm_uframes_t frames) {
    FAKE_CALL(std::to_string(frames));
    alsa.stopThreshold = frames;
    return 0;
}
int snd_pcm_sw_params(snd_pcm_t*, snd_pcm_sw_params_t*) {
    FAKE_CALL();
    return 0;
}

}  // extern "C"
