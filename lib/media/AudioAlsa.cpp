// PCM capture and playback on an ALSA device; see AudioAlsa.h.
#include "AudioAlsa.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "media/CaptureThread.h"

const char* capturedevice = "default";
const char* playbackdevice = "default";

namespace {

constexpr int kFailed = -1;
constexpr int kMinRate = 1000;                  // Hz; below it a period would hold no frame
constexpr useconds_t kDeviceGonePause = 10000;  // µs between attempts on a device that refuses

// Bytes of one sample as ALSASetParams really configures it.
constexpr int SampleBytes(int bitsPerSample) { return bitsPerSample == 32 ? 4 : 2; }

void ClosePcm(snd_pcm_t*& pcm) {
    snd_pcm_close(pcm);
    pcm = nullptr;
    snd_config_update_free_global();
}

void DropAndClosePcm(snd_pcm_t*& pcm) {
    if (pcm == nullptr) return;
    snd_pcm_drop(pcm);
    ClosePcm(pcm);
}

// kFailed if the device refuses the access, the format or the channels; the negative ALSA error if
// it refuses the rate or the whole configuration.
int InstallHardwareParams(snd_pcm_t* pcm, snd_pcm_hw_params_t* params, int bitsPerSample,
                          int channels, int sampleRate) {
    const snd_pcm_format_t format =
        SampleBytes(bitsPerSample) == 4 ? SND_PCM_FORMAT_S32_LE : SND_PCM_FORMAT_S16_LE;
    if (snd_pcm_hw_params_any(pcm, params) < 0 ||
        snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED) < 0 ||
        snd_pcm_hw_params_set_format(pcm, params, format) < 0 ||
        snd_pcm_hw_params_set_channels(pcm, params, static_cast<unsigned>(channels)) < 0)
        return kFailed;
    unsigned rate = static_cast<unsigned>(sampleRate);
    int direction = 0;
    int result = snd_pcm_hw_params_set_rate_near(pcm, params, &rate, &direction);
    if (result >= 0) result = snd_pcm_hw_params(pcm, params);
    return std::min(result, 0);
}

int InstallSoftwareParams(snd_pcm_t* pcm, snd_pcm_uframes_t periodSize, unsigned periodCount) {
    snd_pcm_sw_params_t* params = nullptr;
    snd_pcm_sw_params_alloca(&params);
    snd_pcm_sw_params_current(pcm, params);
    snd_pcm_sw_params_set_start_threshold(pcm, params, std::min(periodCount, 2u) * periodSize);
    snd_pcm_sw_params_set_stop_threshold(pcm, params, periodCount * periodSize);
    return snd_pcm_sw_params(pcm, params);
}

// Number of frames that can be read at once, after recovery from an overrun; negative after an
// error.
snd_pcm_sframes_t AvailableFrames(snd_pcm_t* pcm) {
    snd_pcm_sframes_t available = snd_pcm_avail_update(pcm);
    if (available >= 0) {
        const snd_pcm_state_t state = snd_pcm_state(pcm);
        if (state == SND_PCM_STATE_XRUN) available = -EPIPE;
        // An unplugged device still reports its old frame count: nothing more will come.
        if (state == SND_PCM_STATE_DISCONNECTED) usleep(kDeviceGonePause);
    }
    if (available >= 0) return available;
    snd_pcm_drain(pcm);
    if (snd_pcm_recover(pcm, static_cast<int>(available), 0) < 0) {
        usleep(kDeviceGonePause);  // not to spin on an unplugged device
        return kFailed;
    }
    return snd_pcm_start(pcm) < 0 ? kFailed : available;
}

void CaptureChunk(AudioCaptureALSAContext* ctx) {
    ALSAResume(ctx->pcm);
    const snd_pcm_sframes_t available = AvailableFrames(ctx->pcm);
    if (ctx->chunkFrames > available) {
        // Deliberate: the quotient in milliseconds is used as microseconds, a short back-off.
        const int64_t missing = int64_t{ctx->chunkFrames} - available;
        usleep(static_cast<useconds_t>(missing * ctx->periodMs / ctx->chunkFrames));
        return;
    }
    const int frames = AudioCaptureALSARead(ctx->pcm, ctx->chunk, ctx->chunkFrames);
    if (frames < 1) usleep(kDeviceGonePause);
    if (frames != ctx->chunkFrames || ctx->callback == nullptr) return;
    ctx->callback(ctx->chunk, ctx->chunkBytes, 0, ctx->param);
}

void Release(AudioCaptureALSAContext* ctx) {
    free(ctx->chunk);
    delete ctx;
}

void CloseAndRelease(AudioCaptureALSAContext* ctx) {
    DropAndClosePcm(ctx->pcm);
    Release(ctx);
}

constexpr qv::CaptureWays<AudioCaptureALSAContext> kWays = {"AudioCapture", CaptureChunk,
                                                            CloseAndRelease};
using Thread = qv::CaptureThread<AudioCaptureALSAContext, kWays>;

// Allocates the thread's buffer. False when a chunk's size does not fit the callback's argument.
bool AllocateChunk(AudioCaptureALSAContext* ctx) {
    const int64_t frames = int64_t{ctx->sampleRate / 1000} * ctx->periodMs;
    const int64_t frameBytes = int64_t{SampleBytes(ctx->bitsPerSample)} * ctx->channels;
    if (frameBytes < 1 || frames > INT32_MAX / frameBytes) return false;
    free(ctx->chunk);  // of an earlier run
    ctx->chunkFrames = static_cast<int32_t>(frames);
    ctx->chunkBytes = static_cast<int32_t>(frames * frameBytes);
    ctx->chunk = static_cast<unsigned char*>(calloc(1, static_cast<size_t>(ctx->chunkBytes)));
    return ctx->chunk != nullptr;
}

}  // namespace

int ALSASetParams(snd_pcm_t* pcm, int isPlayback, int bitsPerSample, int channels, int sampleRate) {
    snd_pcm_hw_params_t* params = nullptr;
    snd_pcm_hw_params_alloca(&params);
    const int hardware = InstallHardwareParams(pcm, params, bitsPerSample, channels, sampleRate);
    snd_pcm_uframes_t periodSize = 0;
    unsigned periodCount = 0;
    int direction = 0;
    snd_pcm_hw_params_get_period_size(params, &periodSize, &direction);
    snd_pcm_hw_params_get_periods(params, &periodCount, &direction);
    if (!isPlayback) return hardware;
    // Deliberate: for playback the software step's result counts, whatever the hardware step
    // returned.
    return InstallSoftwareParams(pcm, periodSize, periodCount);
}

int ALSAResume(snd_pcm_t* pcm) {
    snd_pcm_status_t* status = nullptr;
    snd_pcm_status_alloca(&status);
    const int result = snd_pcm_status(pcm, status);
    if (result != 0) return result;
    const snd_pcm_state_t state = snd_pcm_status_get_state(status);
    return state == SND_PCM_STATE_SUSPENDED ? snd_pcm_resume(pcm) : static_cast<int>(state);
}

int AudioCaptureALSACreate(AudioCaptureALSAContext** out, QV_AUDIO_CAPTURE_CALLBACK callback,
                           void* param) {
    if (out == nullptr) return kFailed;
    auto* ctx = new (std::nothrow) AudioCaptureALSAContext{};
    if (ctx == nullptr) return kFailed;
    ctx->callback = callback;
    ctx->param = param;
    *out = ctx;
    return 0;
}

int AudioCaptureALSAStart(AudioCaptureALSAContext* ctx, const char* device, int sampleRate,
                          int bitsPerSample, int channels, int periodMs) {
    if (ctx == nullptr || ctx->pcm != nullptr || sampleRate < kMinRate || periodMs < 1)
        return kFailed;
    if (device == nullptr) device = capturedevice;
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, device, SND_PCM_STREAM_CAPTURE, 0) < 0) return kFailed;
    if (ALSASetParams(pcm, 0, bitsPerSample, channels, sampleRate) < 0) {
        ClosePcm(pcm);
        return kFailed;
    }
    snprintf(ctx->device, sizeof ctx->device, "%s", device);
    ctx->sampleRate = sampleRate;
    ctx->bitsPerSample = bitsPerSample;
    ctx->channels = channels;
    ctx->periodMs = periodMs;
    ctx->pcm = pcm;
    const int started = snd_pcm_start(pcm);
    if (started != 0) return started;
    if (!AllocateChunk(ctx)) return kFailed;
    return Thread::Start(ctx);
}

int AudioCaptureALSARead(snd_pcm_t* pcm, unsigned char* buffer, int frames) {
    const auto wanted = static_cast<snd_pcm_uframes_t>(frames);
    snd_pcm_sframes_t result = snd_pcm_readi(pcm, buffer, wanted);
    if (result == -EPIPE) {
        snd_pcm_prepare(pcm);
        result = snd_pcm_readi(pcm, buffer, wanted);
    } else if (result == -ESTRPIPE) {
        ALSAResume(pcm);
    }
    return static_cast<int>(result);
}

void AudioCaptureALSAStop(AudioCaptureALSAContext* ctx) {
    if (ctx == nullptr) return;
    if (Thread::IsInside(ctx)) return Thread::AskToEnd(ctx);
    Thread::End(ctx);
    DropAndClosePcm(ctx->pcm);
}

void AudioCaptureALSADestroy(AudioCaptureALSAContext* ctx) {
    if (ctx == nullptr) return;
    if (Thread::IsInside(ctx)) return Thread::ReleaseAfterCallback(ctx);
    if (ctx->hasThread) AudioCaptureALSAStop(ctx);  // else the thread would use freed memory
    Release(ctx);
}

int AudioPlaybackALSACreate(AudioPlaybackALSAContext** out) {
    if (out == nullptr) return kFailed;
    *out = new (std::nothrow) AudioPlaybackALSAContext{};
    return *out == nullptr ? kFailed : 0;
}

int AudioPlaybackALSAStart(AudioPlaybackALSAContext* ctx, const char* device, int sampleRate,
                           int bits, int channels, int extra) {
    if (ctx == nullptr || ctx->pcm != nullptr) return kFailed;
    if (device == nullptr) device = playbackdevice;
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, device, SND_PCM_STREAM_PLAYBACK, 0) < 0) return kFailed;
    if (ALSASetParams(pcm, 1, bits, channels, sampleRate) < 0) {
        ClosePcm(pcm);
        return kFailed;
    }
    ctx->bitsPerSample = bits;
    ctx->sampleRate = sampleRate;
    ctx->channels = channels;
    ctx->extra = extra;
    ctx->pcm = pcm;
    return 0;
}

int AudioPlaybackALSAPut(AudioPlaybackALSAContext* ctx, const unsigned char* data, int bytes) {
    if (ctx == nullptr || ctx->pcm == nullptr || ctx->channels < 1 || bytes < 0) return kFailed;
    if (data == nullptr && bytes > 0) return kFailed;
    const int64_t frameBytes = int64_t{SampleBytes(ctx->bitsPerSample)} * ctx->channels;
    const auto frames = static_cast<snd_pcm_uframes_t>(bytes / frameBytes);
    snd_pcm_sframes_t result = snd_pcm_writei(ctx->pcm, data, frames);
    if (result == -ESTRPIPE) {
        ALSAResume(ctx->pcm);
    } else if (result == -EPIPE) {
        snd_pcm_prepare(ctx->pcm);
        AudioPlaybackFillBlank(ctx->pcm);
        result = snd_pcm_writei(ctx->pcm, data, frames);
    }
    return static_cast<int>(result);
}

int AudioPlaybackFillBlank(snd_pcm_t* pcm) {
    snd_pcm_hw_params_t* params = nullptr;
    snd_pcm_hw_params_alloca(&params);
    snd_pcm_uframes_t bufferFrames = 0;
    if (snd_pcm_hw_params_current(pcm, params) < 0 ||
        snd_pcm_hw_params_get_buffer_size(params, &bufferFrames) < 0)
        return kFailed;
    const snd_pcm_uframes_t frames = bufferFrames / 2;
    const ssize_t bytes = snd_pcm_frames_to_bytes(pcm, static_cast<snd_pcm_sframes_t>(frames));
    if (bytes < 1) return kFailed;
    void* silence = calloc(1, static_cast<size_t>(bytes));
    if (silence == nullptr) return kFailed;
    const snd_pcm_sframes_t written = snd_pcm_writei(pcm, silence, frames);
    free(silence);
    return static_cast<int>(written);
}

void AudioPlaybackALSAStop(AudioPlaybackALSAContext* ctx) {
    if (ctx != nullptr) DropAndClosePcm(ctx->pcm);
}

void AudioPlaybackALSADestroy(AudioPlaybackALSAContext* ctx) { delete ctx; }
