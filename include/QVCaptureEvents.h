/** @file
 * Events, notifications, timers and the device clock of PCIe channels.
 *
 * Part of QVCapture.h; results and thread words as described there. The driver assigns the
 * handles of events, notifications and timers; 0 means none. */
#ifndef QV_CAPTURE_EVENTS_H
#define QV_CAPTURE_EVENTS_H

#include "QVCapture.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Events ------------------------------------------------------------------------------ */
/* Auto-reset: a successful wait or try-wait consumes the signal. They belong to the instance, not
 * to a channel. Time-outs are milliseconds, -1 waits for ever. */

/** Creates an event, not set.
 * @return its handle, 0 when the driver refused; the value 3 when the event node is not open (a
 *         handle that the driver refuses everywhere)
 * @threads any */
QV_API unsigned long long QVCreateEvent(void);

/** Closes an event; its waiters return with an error. @threads any */
QV_API QV_RESULT QVCloseEvent(unsigned long long event);

/** Sets an event. @threads any */
QV_API QV_RESULT QVSetEvent(unsigned long long event);

/** Clears an event's signal. @threads any */
QV_API QV_RESULT QVClearEvent(unsigned long long event);

/** @return non-zero when the event is set; its signal stays. 0 for handle 0 or a closed event node.
 * A driver error is non-zero too. @threads any */
QV_API int QVIsSetEvent(unsigned long long event);

/** Consumes the event's signal without waiting.
 * @return the driver's answer, unchanged: 1 when the event was set; 0 for handle 0 @threads any */
QV_API int QVTryWaitEvent(unsigned long long event);

/** Waits for an event and consumes its signal.
 * @return the driver's answer, unchanged; also -1 when a signal handler interrupted the wait
 *         (errno EINTR); 0 for handle 0 @threads any */
QV_API int QVWaitEvent(unsigned long long event, int timeout);

/** Waits until at least one of several events is set, then consumes the signals of all that are.
 * @param[in] events  @p count handles
 * @return bit mask; bit i modulo 32 is set for event i. 0 on time-out, failure, null array or a
 *         closed event node @threads any */
QV_API int QVMultiWaitEvent(unsigned long long* events, int count, int timeout);

/* ---- Notifications that set an event ----------------------------------------------------- */
/* From here on: PCIe channels only; calls for a channel of another kind fail. */

/** The notification bits whose meaning is known; the driver has others. */
enum {
    QV_NOTIFY_VIDEO_FRAME = 0x400,  /**< a frame is in the driver's buffers */
    QV_NOTIFY_AUDIO_FRAME = 0x1000, /**< an audio frame is ready */
};

/** Makes the driver set @p event whenever one of @p enableBits (QV_NOTIFY_VIDEO_FRAME and others)
 * is raised.
 * @return notification handle, 0 on failure or for event 0 @threads per channel */
QV_API unsigned long long QVRegisterNotify(QV_CHANNEL channel, unsigned long long event,
                                           unsigned int enableBits);

/** Ends a notification, made with or without a callback. @threads per channel */
QV_API QV_RESULT QVUnregisterNotify(QV_CHANNEL channel, unsigned long long notify);

/** Reads which of a notification's bits were raised. @threads per channel */
QV_API QV_RESULT QVGetNotifyStatus(QV_CHANNEL channel, unsigned long long notify,
                                   unsigned long long* status);

/* ---- Timers that set an event ------------------------------------------------------------ */

/** Makes a driver timer that sets @p event once at its expiry.
 * @return timer handle, 0 on failure or for event 0 @threads per channel */
QV_API unsigned long long QVRegisterTimer(QV_CHANNEL channel, unsigned long long event);

/** Ends a driver timer. @threads per channel */
QV_API QV_RESULT QVUnregisterTimer(QV_CHANNEL channel, unsigned long long timer);

/** Sets when a driver timer expires, in device-clock time; at once if that time has passed.
 * @threads per channel */
QV_API QV_RESULT QVScheduleTimer(QV_CHANNEL channel, unsigned long long timer,
                                 long long expireTime);

/* ---- Device clock ------------------------------------------------------------------------ */
/* Counts in the device's own unit (100 ns on the known cards). */

/** Reads the device clock. @threads per channel */
QV_API QV_RESULT QVGetDeviceTime(QV_CHANNEL channel, long long* time);

/** Sets the device clock. @threads per channel */
QV_API QV_RESULT QVSetDeviceTime(QV_CHANNEL channel, long long time);

/** Asks the driver to bring the device clock smoothly to @p time. @threads per channel */
QV_API QV_RESULT QVRegulateDeviceTime(QV_CHANNEL channel, long long time);

#ifdef __cplusplus
}
#endif

#endif
