// PCM capture and playback on an ALSA device.
//
// Knows device names, not channels: AudioVolume finds the name. Prints nothing. A capture has one
// thread, "AudioCapture", which owns the PCM handle while it runs; call start, stop and destroy
// from one thread at a time or from the capture's own callback. Playback has no thread.
#pragma once

#include <alsa/asoundlib.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "QVCaptureMedia.h"

struct AudioCaptureALSAContext {
    QV_AUDIO_CAPTURE_CALLBACK callback;
    void* param;
    char device[64];  // the PCM device opened, cut to fit
    snd_pcm_t* pcm;   // null when stopped
    int32_t sampleRate;
    int32_t bitsPerSample;
    int32_t channels;
    int32_t periodMs;
    pthread_t thread;
    std::atomic<int32_t> running;  // cleared to stop the thread

    bool hasThread;        // there is a thread to join; not touched by that thread
    bool releasedInside;   // its own callback destroyed the capture: the thread releases it
    unsigned char* chunk;  // one chunk, reused for every callback
    int32_t chunkFrames;
    int32_t chunkBytes;
};

struct AudioPlaybackALSAContext {
    snd_pcm_t* pcm;  // null when stopped
    int32_t sampleRate;
    int32_t bitsPerSample;
    int32_t channels;
    int32_t extra;
};

// Exported under a private version, for the maker's own programs.
#pragma GCC visibility push(default)
extern "C" {

// Used when a start is given no device name.
extern const char* capturedevice;
extern const char* playbackdevice;

// All results: 0 (or a count) on success, -1 or a negative ALSA error on failure.

int AudioCaptureALSACreate(AudioCaptureALSAContext** out, QV_AUDIO_CAPTURE_CALLBACK callback,
                           void* param);

// Opens, configures and starts the device, then the thread. -1 also for a rate below 1000 Hz, a
// period below 1 ms or a capture that still holds a device. If the device opened but did not start,
// the handle stays in the context: stop closes it.
int AudioCaptureALSAStart(AudioCaptureALSAContext* ctx, const char* device, int sampleRate,
                          int bitsPerSample, int channels, int periodMs);

// Ends the thread, then closes the device. A call from the capture's own callback only asks the
// thread to end; the next stop, or the destruction, closes the device.
void AudioCaptureALSAStop(AudioCaptureALSAContext* ctx);

// Releases a stopped capture. After a call from the capture's own callback the thread does it when
// the callback has returned.
void AudioCaptureALSADestroy(AudioCaptureALSAContext* ctx);

// Steps of the above.
int ALSASetParams(snd_pcm_t* pcm, int isPlayback, int bitsPerSample, int channels, int sampleRate);
int ALSAResume(snd_pcm_t* pcm);
int AudioCaptureALSARead(snd_pcm_t* pcm, unsigned char* buffer, int frames);
int AudioPlaybackFillBlank(snd_pcm_t* pcm);

}  // extern "C"
#pragma GCC visibility pop
