/** @file
 * The channel worker: notifications, timers, and capture of frames by callback.
 *
 * Part of QVCapture.h; results and thread words as described there. PCIe channels only: calls for a
 * channel of another kind fail.
 *
 * QVStartChannelThread() gives a channel one worker thread. All other functions here need it. Every
 * callback of the channel runs on that thread, one at a time; a callback that blocks stalls all
 * others of its channel. Pointers given to a callback are valid until it returns.
 *
 * Rules for callers:
 * - Every function here may be called from any thread, and from inside a callback of the same
 *   channel. A worker cannot stop itself.
 * - Called from another thread, a function here that registers, creates, starts, destroys or stops
 *   waits until the worker has done it, and so for a callback that is running.
 *   QVStopChannelThread(), QVCloseChannel() and QVUnregisterNotify() wait, too. While you call
 *   them, never hold a lock that a callback takes.
 * - A callback that makes such a call for another channel waits for that channel's worker: two
 *   callbacks that do this to each other wait for ever.
 * - When a function that ends a registration, timer or capture returns QV_RESULT_OK, the callback
 *   will not be called again, and does not run, unless it made this call itself. After any other
 *   result it may be called again: use the functions with a release, which the library calls when
 *   it has really ended. Only QVDestoryTimer() also fails for the last timer, although it removes
 *   that timer.
 * - No exception may leave a callback: the program would end. No callback may call pthread_exit():
 *   the worker would end with its locks held.
 * - A worker's thread receives none of the program's signals; threads that a callback starts
 *   inherit this. */
#ifndef QV_CAPTURE_CALLBACKS_H
#define QV_CAPTURE_CALLBACKS_H

#include "QVCapture.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Notification: the handle of the registration, the status bits raised, the caller's parameter. */
typedef void (*QV_NOTIFY_CALLBACK)(unsigned long long handle, unsigned int statusBits, void* param);

/** Timer: the timer's handle; @p param is null except with QVCreateTimerWithRelease(). */
typedef void (*QV_TIMER_CALLBACK)(unsigned long long handle, void* param);

/** Video frame: address, size in bytes and stride in bytes per line of the picture, the driver's
 *  description of the frame (all zero when the driver did not return one, for example for a
 *  frame that completes while capture is being stopped), the caller's parameter. */
typedef void (*QV_VIDEO_CALLBACK)(unsigned long long bufferAddress, unsigned int frameSize,
                                  unsigned int stride, _QVCAP_VIDEO_FRAME_INFO* info, void* param);

/** Audio frame: the driver's record, the caller's parameter. */
typedef void (*QV_AUDIO_CALLBACK)(_QVCAP_AUDIO_CAPTURE_FRAME* frame, void* param);

/** Starts the channel's worker thread.
 * @retval QV_RESULT_FAILED  one already runs or is being stopped, or an event, thread or memory
 *                           could not be allocated
 * @threads any */
QV_API QV_RESULT QVStartChannelThread(QV_CHANNEL channel);

/** Stops the worker: capture is stopped, notifications and timers are removed, commands that other
 * threads still wait for fail, and everything is released.
 * @retval QV_RESULT_FAILED  none runs, another thread is stopping it already, or the call came from
 *                           one of the worker's own callbacks
 * @threads any */
QV_API QV_RESULT QVStopChannelThread(QV_CHANNEL channel);

/** Calls @p callback whenever one of @p enableBits (QV_NOTIFY_VIDEO_FRAME and others) is raised. At
 * most 27 registrations of a channel fit its worker's wait set.
 * @return handle for QVUnregisterNotify(), 0 on failure
 * @threads any */
QV_API unsigned long long QVRegisterNotifyWithCallback(QV_CHANNEL channel, unsigned int enableBits,
                                                       QV_NOTIFY_CALLBACK callback, void* param);

/** Makes a timer on the device clock.
 * @param[in] delay   device-clock units until it first expires
 * @param[in] period  units from one call to the next expiry; 0 or less: it expires once and is gone
 * @return handle, 0 on failure
 *
 * A channel's timers share one driver timer. It is set to the expiry of the first of them, in the
 * library's own order: timers made by this function are ordered by their handles, lowest first.
 * Another timer that is due earlier is called when the first one expires, not before. Missed calls
 * are not made up for.
 * @threads any */
QV_API unsigned long long QVCreateTimer(QV_CHANNEL channel, QV_TIMER_CALLBACK callback,
                                        long long delay, long long period);

/** Removes a timer.
 * @retval QV_RESULT_FAILED  unknown handle; also, deliberately, when the last timer was removed
 * @threads any */
QV_API QV_RESULT QVDestoryTimer(QV_CHANNEL channel, unsigned long long timer);

/** Delivers every captured frame to @p callback, from two buffers that the library owns.
 * @param[in] fourcc  pixel format, first character in the low byte; an unknown one yields frames of
 *                    0 bytes
 * @param[in] cx,cy   pixels and lines, at most 65535
 * @param[in] mode    QV_VIDEO_CAPTURE_BACK_TO_BACK always keeps one request outstanding and
 * alternates the buffers; any other mode captures one frame per frame notification
 *
 * A second start without a stop replaces the first; its memory is kept until the stop. Failures of
 * single frames are not reported: the delivery ends until the capture is started again if the
 * driver refuses a capture request, or does not report its outcome; QVIsVideoCaptureStalled() tells
 * whether that has happened.
 * @threads any */
QV_API QV_RESULT QVStartVideoCaptureWithCallback(QV_CHANNEL channel, unsigned int fourcc, int cx,
                                                 int cy, _QV_VIDEO_CAPTURE_MODE mode,
                                                 QV_VIDEO_CALLBACK callback, void* param);

/** Whether callback video capture waits for a frame that will not come, because the driver refused
 * a request for a frame, or refused to report its outcome. Starting the capture again ends this.
 * @threads any
 */
QV_API bool QVIsVideoCaptureStalled(QV_CHANNEL channel);

/** Ends callback video capture and releases its memory; memory that the driver may still write to,
 * because it refused to stop, is kept until the channel is closed.
 * @threads any */
QV_API QV_RESULT QVStopVideoCaptureWithCallback(QV_CHANNEL channel);

/** Delivers every audio frame to @p callback, one per audio notification.
 * @retval QV_RESULT_FAILED  also when capture is already open; that capture goes on
 * @threads any */
QV_API QV_RESULT QVStartAudioCaptureWithCallback(QV_CHANNEL channel, QV_AUDIO_CALLBACK callback,
                                                 void* param);

/** Ends callback audio capture. @threads any */
QV_API QV_RESULT QVStopAudioCaptureWithCallback(QV_CHANNEL channel);

/* ---- With a release ---------------------------------------------------------------------- */
/* The same four, for a parameter that belongs to the registration, timer or capture: @p release
 * is called with @p param exactly once, when the library no longer uses it, whatever ended the
 * use; null is not called. It is called after the last callback has returned, and at once when
 * the function fails; on the worker's thread, or on that of the caller whose call failed,
 * stopped the worker or closed the channel. */

/** QVRegisterNotifyWithCallback() with a release. @threads any */
QV_API unsigned long long QVRegisterNotifyWithRelease(QV_CHANNEL channel, unsigned int enableBits,
                                                      QV_NOTIFY_CALLBACK callback, void* param,
                                                      QV_RELEASE_CALLBACK release);

/** QVCreateTimer() with a parameter for the callback and a release. The handle of such a timer is
 * never given to another one. @threads any */
QV_API unsigned long long QVCreateTimerWithRelease(QV_CHANNEL channel, QV_TIMER_CALLBACK callback,
                                                   long long delay, long long period, void* param,
                                                   QV_RELEASE_CALLBACK release);

/** QVStartVideoCaptureWithCallback() with a release. @threads any */
QV_API QV_RESULT QVStartVideoCaptureWithRelease(QV_CHANNEL channel, unsigned int fourcc, int cx,
                                                int cy, _QV_VIDEO_CAPTURE_MODE mode,
                                                QV_VIDEO_CALLBACK callback, void* param,
                                                QV_RELEASE_CALLBACK release);

/** QVStartAudioCaptureWithCallback() with a release. @threads any */
QV_API QV_RESULT QVStartAudioCaptureWithRelease(QV_CHANNEL channel, QV_AUDIO_CALLBACK callback,
                                                void* param, QV_RELEASE_CALLBACK release);

/* ---- A descriptor for poll() ------------------------------------------------------------- */
/* Lets a callback wake a thread that waits in poll() or a similar call. */

/** Makes a doorbell: a file descriptor that is readable after it was rung, until it is answered.
 * @return the descriptor, to be closed with close(); -1 when the system has none left, errno says
 * why
 * @threads any */
QV_API int QVOpenDoorbell(void);

/** Rings it. Never blocks. @threads any */
QV_API void QVRingDoorbell(int doorbell);

/** @return how often it was rung since the last answer; after this call it is not readable. Never
 * blocks.
 * @threads any */
QV_API unsigned long long QVAnswerDoorbell(int doorbell);

#ifdef __cplusplus
}
#endif

#endif
