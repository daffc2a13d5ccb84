/** @file
 * Driving USB devices: how a program supplies the transfers.
 *
 * Part of QVCapture.h; results and thread words as described there.
 *
 * The library knows the commands of a USB device of the Tavo Capture family, but not how to
 * transfer them. Unless a program supplies a transport with QVSetUSBTransport() before
 * QVCaptureInitInstance(), no USB device is listed or opened. A program that cannot be changed, for
 * example qvcap-upgrade, gets a transport from qvcap-usb-run(1).
 *
 * What is known of the wire: a transfer has a command of one byte, a direction (get: the device
 * fills the payload; set: it takes the payload) and a payload of a fixed size, up to 2056 bytes,
 * whose numbers are little-endian. Only for EDIDs, 0x98 and 0x99, the caller decides the size. The
 * bytes of a payload are those of the records in this interface. A transfer succeeds or fails as a
 * whole; a negative result means failure.
 *
 * The device answers two sets, in the same payload: 0xF4, one byte, tells whether the device is
 * still busy with an erase or a write (0: it is not), and 0xF3, 2056 bytes, is answered when it is
 * a read of firmware. A read is a set of 0xF2 with the address, four bytes, and then a set of 0xF3
 * with that address, the number of bytes and zeros. A set of 0xF3 without a 0xF2 before it is a
 * write of up to 2048 bytes. So nothing may come between the two sets of a read on one device: if
 * the 0xF2 is lost, the 0xF3 after it programs zeros.
 *
 * What is not known: vendor and product numbers, the interface and endpoint, the kind and
 * numbers of the USB requests that carry a transfer, how an answer is fetched, and the unit of
 * the volumes that 0xB0 to 0xB7 read. Somebody with a device must find them out; begin with the
 * example usb_transport.c, which invents them. */
#ifndef QV_CAPTURE_USB_H
#define QV_CAPTURE_USB_H

#include "QVCapture.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Records ----------------------------------------------------------------------------- */

/** One device that a search found. */
typedef struct _QVUSBCAP_CHANNEL_ENTRY {
    char path[512];                /**< names the device to open; not empty */
    _QVCAP_CHANNEL_INFO info;      /**< what the device answers to a get of 0x01, 224 bytes */
    _QVUSBCAP_CAPTURE_INFO family; /**< and of 0x02, 10 bytes */
} _QVUSBCAP_CHANNEL_ENTRY;

/** An open device. The texts are cut to 31 characters: the video node of a device with a longer
 *  serial number is not found. */
typedef struct QV_USB_DEVICE {
    void* handle;    /**< what get, set and close are given; not null */
    char usbBus[32]; /**< "BBB/DDD" as in the usbbus file of its sound card; empty: it has none */
    char serial[32]; /**< as the kernel reports it; used to find its video node */
} QV_USB_DEVICE;

/** What happened to a USB device. */
typedef uint32_t _QVUSBHOT_PLUG_EVETN;
enum { QVUSB_HOT_PLUG_ARRIVED = 1, QVUSB_HOT_PLUG_LEFT = 2 };

/** Called on the watcher's thread "QVHotPlug" when a device came or went. It may call the library,
 * except functions with the thread word instance.
 * @param[in] devicePath  up to 511 characters, valid during the call only; empty: not known */
typedef void (*QVUSB_HOT_PLUG_CALLBACK)(_QVUSBHOT_PLUG_EVETN event, const char* devicePath,
                                        void* param);

/* ---- What a transport does --------------------------------------------------------------- */
/* No function of a transport calls the library. */

/** Prepares the transport, for example opens the USB library. Called by QVCaptureInitInstance(),
 * once until stop.
 * @return negative: it failed, and nothing is listed, opened or stopped until the next
 *         QVCaptureInitInstance()
 * @threads the caller's */
typedef int (*QV_USB_START)(void* user);

/** Releases what start allocated. Called when the instance has ended and no channel of a USB device
 * is open any more: by QVCaptureExitInstance() or by the last QVCloseChannel().
 * @threads the caller's */
typedef void (*QV_USB_STOP)(void* user);

/** Fills in the devices that are there. Called by QVCaptureInitInstance() and QVRefreshDevice();
 * never while another search is under way. A device whose records cannot be read is left out, so
 * that one broken device does not hide the others. qvcap-upgrade accepts a path only if it is an
 * existing file; /dev/bus/usb/BBB/DDD is one, and changes when a device is plugged in again.
 * @param[out] entries   room for @p capacity, all zeros; texts are cut at their last byte
 * @return how many there are, even if more than @p capacity; negative when that is not known:
 *         the list stays as it was, whatever was filled in
 * @threads the caller's; meanwhile channels may be in use on other threads */
typedef int (*QV_USB_FIND)(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity, void* user);

/** Opens the device of a path that a search returned. A path is open at most once: channels of the
 * same path share the open device until the last of them is closed. So close the channels of a
 * device that has left before you open the device that replaced it. No other process may use the
 * device meanwhile, or its 0xF2 and 0xF3 mix with those of this process: claim an interface, and
 * refuse a device that is claimed.
 * @param[out] device  all zeros; the object behind @p device->handle belongs to the transport until
 * close
 * @return negative, or a null handle: there is no such device or it is in use; close is not
 *         called
 * @threads any; not twice at once */
typedef int (*QV_USB_OPEN)(const char* path, QV_USB_DEVICE* device, void* user);

/** Closes a device that open returned; called once for each. The device may be gone.
 * @threads any; no transfer of @p handle is under way */
typedef void (*QV_USB_CLOSE)(void* handle, void* user);

/** Reads the payload of a command. A result that is not negative means that all @p size bytes came:
 * a short answer is a failure. Set a time limit: the library does not. After a failure the library
 * does not repeat the transfer. A handle whose device is gone must fail for ever, even when the
 * device comes back: the device would have lost the state of the operation that is under way.
 * @param[in,out] data  the library's own memory; zeros, or for 0x09 and 0x0A a count at the start
 * @return negative: the transfer failed
 * @threads any; one transfer at a time for each handle; transfers of other handles may run at
 * the same time */
typedef int (*QV_USB_GET)(void* handle, unsigned char command, void* data, unsigned int size,
                          void* user);

/** Sends the payload of a command, and fetches the device's answer if there is one. As for get: all
 * or nothing, a time limit, no repetition. Report failure for a set of 0xF2 that may not have
 * arrived: the library sends the 0xF3 of a read only after a 0xF2 that succeeded, and nothing
 * between the two on one handle. While a device is busy, the library sends sets of 0xF4 without a
 * pause and without an end: wait between them here, or give up.
 * @param[in,out] data      @p size bytes, the library's own memory
 * @param[in]     answered  0: there is no answer, and @p data does not change; else @p size, and
 *                          the answer, of this many bytes, replaces the sent data. It distinguishes
 *                          a read of firmware from a write
 * @return negative: the transfer, or its answer, failed
 * @threads as get */
typedef int (*QV_USB_SET)(void* handle, unsigned char command, void* data, unsigned int size,
                          unsigned int answered, void* user);

/** Waits until a device comes or goes, or the time is over; never longer, because the end of the
 * watch waits for it. Called again and again during a watch.
 * @param[out] event  which of the two         @param[out] path  512 bytes, all zeros
 * @return 0: nothing happened; positive: @p event and @p path say what; negative: it could not
 *         watch, and is called again after a pause of a tenth of a second
 * @threads the watcher's own, at the same time as all other functions; not after stop */
typedef int (*QV_USB_HOT_PLUG)(int milliseconds, _QVUSBHOT_PLUG_EVETN* event, char* path,
                               void* user);

/** The functions of a transport. Fill unused fields with zeros. */
typedef struct QV_USB_TRANSPORT {
    uint32_t size;      /**< sizeof(QV_USB_TRANSPORT) */
    QV_USB_START start; /**< may be null */
    QV_USB_STOP stop;   /**< may be null */
    QV_USB_FIND find;
    QV_USB_OPEN open;
    QV_USB_CLOSE close;
    QV_USB_GET get;
    QV_USB_SET set;
    QV_USB_HOT_PLUG hotPlug; /**< may be null: then hot-plug cannot be watched */
} QV_USB_TRANSPORT;

/* ---- Transport --------------------------------------------------------------------------- */

/** Supplies the transfers of USB devices for the whole process. Call before
 * QVCaptureInitInstance().
 * @param[in] transport  is copied; null: no transport, as before the first call
 * @param[in] user       passed to every function of the transport; the caller keeps what it points
 *                       to until another transport was set
 * @retval QV_RESULT_FAILED       too late: the instance is initialised, or a channel of a USB
 *                                device is still open. Nothing changes
 * @retval QV_RESULT_BAD_ARGUMENT a size that is too small, or one of find, open, close, get and set
 *                                is missing. Nothing changes
 * @threads instance */
QV_API QV_RESULT QVSetUSBTransport(const QV_USB_TRANSPORT* transport, void* user);

/* ---- Coming and going -------------------------------------------------------------------- */

/** Calls a callback when USB devices come and go, until QVUnregisterUSBHotPlug() or the end of the
 * instance. The list of channels does not change by itself: see QVRefreshDevice().
 * @retval QV_RESULT_FAILED       there is no instance, the transport cannot watch, a watch is
 *                                already running, or no thread could be started
 * @retval QV_RESULT_BAD_ARGUMENT null callback
 * @threads instance */
QV_API QV_RESULT QVRegisterUSBHotPlug(QVUSB_HOT_PLUG_CALLBACK callback, void* param);

/** Ends the watch. When this returns, the callback does not run any more; when the callback itself
 * calls this, it runs to its end and is not called again. Always QV_RESULT_OK.
 * @threads any, one at a time */
QV_API QV_RESULT QVUnregisterUSBHotPlug(void);

#ifdef __cplusplus
}
#endif

#endif
