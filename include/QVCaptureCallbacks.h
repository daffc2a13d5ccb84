/** @file
 * The channel worker: notifications, timers, and capture of frames by callback.
 *
 * Part of QVCapture.h; results and thread words as described there. PCIe channels only: a channel
 * of another kind fails.
 *
 * QVStartChannelThread() gives a channel one worker thread. Everything else here needs it. Every
 * callback of the channel runs on that thread, one at a time; a callback that blocks stalls all
 * others of its channel. Pointers given to a callback are valid until it returns.
 *
 * Rules for callers:
 * - Every function here may be called from any thread, and from inside a callback of the same
 *   channel. A worker cannot stop itself.
 * - Called from another thread, a function here that registers, creates, starts, destroys or stops
 *   waits until the worker has done it, and so for a callback that is running.
 *   QVStopChannelThread(), QVCloseChannel() and QVUnregisterNotify() wait, too. Never hold a lock
 *   while you call them that a callback takes.
 * - A callback that calls for another channel waits for that one's worker: two that do so to each
 *   other wait for ever.
 * - When a function that ends a registration, timer or capture returns QV_RESULT_OK, its callback
 *   will not come again; it does not run either, unless this is it. After any other result it may:
 * use the functions with a release, which is called when it is really over. QVDestoryTimer() alone
 * fails for the last timer, too, which is gone all the same.
 * - No exception may leave a callback, and none may call pthread_exit(): the program would end, or
 *   the worker would be gone with its locks.
 * - A worker's thread takes none of the program's signals; threads that a callback starts inherit
 *   that. */
#ifndef QV_CAPTURE_CALLBACKS_H
#define QV_CAPTURE_CALLBACKS_H

#include "QVCapture.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Notification: the handle of the registration, the status bits raised, the caller's parameter. */
typedef void (*QV_NOTIFY_CALLBACK)(unsigned long long handle, unsigned int statusBits, void* param);

/** Timer: the timer's handle; @p param is null but for QVCreateTimerWithRelease(). */
typedef void (*QV_TIMER_CALLBACK)(unsigned long long handle, void* param);

/** Video frame: address, size in bytes and stride in bytes per line of the picture, the driver's
 *  description of the frame (all zero when the driver did not give it, as for a frame that is
 *  finished while capture is being stopped), the caller's parameter. */
typedef void (*QV_VIDEO_CALLBACK)(unsigned long long bufferAddress, unsigned int frameSize,
                                  unsigned int stride, _QVCAP_VIDEO_FRAME_INFO* info, void* param);

/** Audio frame: the driver's record, the caller's parameter. */
typedef void (*QV_AUDIO_CALLBACK)(_QVCAP_AUDIO_CAPTURE_FRAME* frame, void* param);

/** Starts the channel's worker thread.
 * @retval QV_RESULT_FAILED  one runs already or is being stopped, or no event, thread or memory
 *                           could be had
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
 * A channel's timers share one driver timer. It is set to the expiry of the first of them, in an
 * order that is the library's: for timers made by this function that of their handles, lowest
 * first. Another one that is due earlier is called when that one expires, not before. Calls that
 * are late are not caught up with.
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
 * @param[in] mode    QV_VIDEO_CAPTURE_BACK_TO_BACK keeps a request outstanding always and
 * alternates the buffers; any other mode captures one frame per frame notification
 *
 * A second start without a stop replaces the first; its memory is kept until the stop. Failures of
 * single frames are not reported: a capture request that the driver refuses ends the delivery until
 * the capture is started anew, and so does one that it does not tell the outcome of;
 * QVIsVideoCaptureStalled() tells.
 * @threads any */
QV_API QV_RESULT QVStartVideoCaptureWithCallback(QV_CHANNEL channel, unsigned int fourcc, int cx,
                                                 int cy, _QV_VIDEO_CAPTURE_MODE mode,
                                                 QV_VIDEO_CALLBACK callback, void* param);

/** Whether callback video capture waits for a frame that will not come, because the driver refused
 * a request for one, or to tell what became of it. Starting the capture anew ends it. @threads any
 */
QV_API bool QVIsVideoCaptureStalled(QV_CHANNEL channel);

/** Ends callback video capture and releases its memory; memory that the driver may still write to,
 * because it refused to stop, is kept until the channel is closed.
 * @threads any */
QV_API QV_RESULT QVStopVideoCaptureWithCallback(QV_CHANNEL channel);

/** Delivers every audio frame to @p callback, one per audio notification.
 * @retval QV_RESULT_FAILED  also when capture is open already; it goes on
 * @threads any */
QV_API QV_RESULT QVStartAudioCaptureWithCallback(QV_CHANNEL channel, QV_AUDIO_CALLBACK callback,
                                                 void* param);

/** Ends callback audio capture. @threads any */
QV_API QV_RESULT QVStopAudioCaptureWithCallback(QV_CHANNEL channel);

/* ---- With a release ---------------------------------------------------------------------- */
/* The same four, for a parameter that belongs to the registration, timer or capture: @p release is
 * called with @p param exactly once, when the library has done with it, whatever ended it; null is
 * not called. It is called after the last callback has returned, and at once when the function
 * fails; on the worker's thread, or on that of the caller who failed, stopped the worker or closed
 * the channel. */

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
/* Takes news from a callback to a thread that waits in poll() or its like. */

/** Makes a doorbell: a file descriptor that is readable while it has been rung and not answered.
 * @return the descriptor, to be closed with close(); -1 when there is none left, errno says why
 * @threads any */
QV_API int QVOpenDoorbell(void);

/** Rings it. Never blocks. @threads any */
QV_API void QVRingDoorbell(int doorbell);

/** @return how often it was rung since the last answer; it is not readable then. Never blocks.
 * @threads any */
QV_API unsigned long long QVAnswerDoorbell(int doorbell);

#ifdef __cplusplus
}
#endif

#endif
