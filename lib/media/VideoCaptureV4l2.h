// Video of USB channels through their V4L2 node: capture, queries, picture controls, node look-up.
//
// Knows nodes, not channels. Prints nothing; functions return 0 on success and -1 on failure.
// Streaming uses libv4l2, which converts pixel formats; queries and controls go directly to the
// kernel. A capture has one thread, "VideoCapture"; call start, stop and close from one thread at a
// time or from the capture's own callback. The queries open the node themselves and need no
// capture.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "QVCaptureMedia.h"

inline constexpr int kV4L2Buffers = 4;  // requested, and the most that are used

struct VideoCaptureV4L2Buffer {
    void* address;  // null when not mapped
    size_t length;  // bytes
};

inline constexpr size_t kVideoPathSize = 256;  // with the closing zero

struct VideoCaptureV4L2Context {
    QV_VIDEO_CAPTURE_CALLBACK callback;
    void* param;
    char path[kVideoPathSize];  // cut to fit
    int32_t fd;                 // -1 when closed
    uint32_t pixelFormat;
    uint32_t width;
    uint32_t height;
    VideoCaptureV4L2Buffer buffers[kV4L2Buffers];
    pthread_t thread;
    std::atomic<int32_t> running;  // cleared to stop the thread

    bool hasThread;       // there is a thread to join; not touched by that thread
    bool releasedInside;  // its own callback closed the capture: the thread releases it
};

// One frame interval, as a duration in 100 ns units or as a fraction.
struct VideoFrameRate {
    uint32_t frameDuration;
    float framesPerSecond;
};
struct VideoFrameFraction {
    uint32_t denominator;
    uint32_t numerator;
};

// Exported under a private version, for the maker's own programs.
#pragma GCC visibility push(default)
extern "C" {

// Opens and configures a node; nothing streams yet. The driver's adjustments are not reported.
int VideoCaptureV4L2Open(const char* devicePath, unsigned int pixelFormat, unsigned int width,
                         unsigned int height, int intervalNumerator, int intervalDenominator,
                         VideoCaptureV4L2Context** out);

void VideoCaptureV4L2SetCallback(VideoCaptureV4L2Context* ctx, QV_VIDEO_CAPTURE_CALLBACK callback,
                                 void* param);

// Maps and queues at most four buffers, streams and starts the thread. A failed start leaves the
// context open and unmapped.
int VideoCaptureV4L2Start(VideoCaptureV4L2Context* ctx);

// Ends the thread, then the stream and the mappings. A call from the capture's own callback only
// asks the thread to end; the next stop, or the close, does the rest.
void VideoCaptureV4L2Stop(VideoCaptureV4L2Context* ctx);

// Stops, closes the node and frees the context; after a call from its own callback, when that has
// returned.
void VideoCaptureV4L2Close(VideoCaptureV4L2Context* ctx);

int SetVideoProcParamV4L2(VideoCaptureV4L2Context* ctx, _QVCAP_VIDEO_PROC_PARAM_TYPE type,
                          int value);
// Each output may be null.
int GetVideoProcParamV4L2(VideoCaptureV4L2Context* ctx, _QVCAP_VIDEO_PROC_PARAM_TYPE type,
                          int* minimum, int* maximum, int* defaultValue, int* current);

// count: in the capacity of the array, out the codes stored, or their number when there is no array
// or the capacity is 0.
int GetVideoCaptureSupportColorFormatV4L2(const char* devicePath, unsigned int* fourccs,
                                          int* count);

// Of the first pixel format. Every output may be null; count is the number of all sizes in a list.
int GetVideoCaptureSupportResolutionV4L2(const char* devicePath, int* mode, int* count,
                                         _QVCAP_VIDEO_RESOLUTION_RANGE* range,
                                         _QVCAP_VIDEO_RESOLUTION_LIST* list);

// Of the first pixel format at its first size, or its largest when sizes are a range. One of the
// arrays is filled; count as for the colour formats.
int GetVideoCaptureSupportFrameRateV4L2(const char* devicePath, VideoFrameRate* rates,
                                        VideoFrameFraction* fractions, int* count);

// The first video node on the USB bus whose number is the third character of a sound card's bus
// line ("001/004"). devicePath: at least 32 bytes.
int GetUSBCaptureVideoPath(const char* usbBus, char* devicePath);

// The first capture node of the USB device with this serial number; the buffer is untouched when
// there is none.
int GetUSBCaptureVideoPathbySerial(const char* serial, char* devicePath);

// Deliberately not the inverse of each other: a node that offers "YUYV" reports "YUYV", not "YUY2".
unsigned int QVFourcc2V4L2Fmt(unsigned int fourcc);
unsigned int V4L2Fmt2QVFourcc(unsigned int pixelFormat);

// Control id, 0 for an unknown type.
unsigned int GetVideoCtrlId(_QVCAP_VIDEO_PROC_PARAM_TYPE type);

}  // extern "C"
#pragma GCC visibility pop
