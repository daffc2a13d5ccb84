/** @file
 * Driving USB devices: how a program supplies the transfers.
 *
 * Part of QVCapture.h; results and thread words as described there.
 *
 * The library knows what is said to a USB device of the Tavo Capture family, and not how it gets
 * there. Unless a program supplies a transport with QVSetUSBTransport() before
 * QVCaptureInitInstance(), no USB device is listed or opened. A program that cannot be changed,
 * qvcap-upgrade for one, gets a transport from qvcap-usb-run(1).
 *
 * What is known of the wire: a transfer has a command of one byte, a direction (get: the device
 * fills the payload; set: it takes the payload) and a payload of a fixed size, up to 2056 bytes,
 * whose numbers are little-endian. Only for EDIDs, 0x98 and 0x99, the caller says the size. The
 * bytes of a payload are those of the records in this interface. A transfer succeeds or fails as a
 * whole; a negative result means failure.
 *
 * Two sets are answered, in the same payload: 0xF4, one byte, whether the device is still busy
 * with an erase or a write (0: it is not), and 0xF3, 2056 bytes, when it is a read of firmware. A
 * read is a set of 0xF2, four bytes, the address, and then a set of 0xF3 with that address, the
 * number of bytes and zeros. A set of 0xF3 without a 0xF2 before it is a write of up to 2048
 * bytes. So the two of a read belong together for each device: a 0xF2 that is lost makes the 0xF3
 * after it program zeros.
 *
 * What is not known: vendor and product numbers, the interface and endpoint, the kind and numbers
 * of the USB requests that carry a transfer, how an answer is fetched, and the unit of the volumes
 * that 0xB0 to 0xB7 read. Somebody with a device finds them out; the example usb_transport.c, which
 * invents them, is where to begin. */
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

/** A device that was opened. The texts are cut at 31 characters: the serial number of a device
 *  whose video is to be found has at most so many. */
typedef struct QV_USB_DEVICE {
    void* handle;    /**< what get, set and close are given; not null */
    char usbBus[32]; /**< "BBB/DDD" as in the usbbus file of its sound card; empty: has none */
    char serial[32]; /**< as the kernel has it; its video node is found by it */
} QV_USB_DEVICE;

/** What happened to a USB device. */
typedef uint32_t _QVUSBHOT_PLUG_EVETN;
enum { QVUSB_HOT_PLUG_ARRIVED = 1, QVUSB_HOT_PLUG_LEFT = 2 };

/** Called on the watcher's thread "QVHotPlug" when a device came or went. It may call the library,
 * but for what the instance word is said of.
 * @param[in] devicePath  up to 511 characters, valid during the call only; empty: not known */
typedef void (*QVUSB_HOT_PLUG_CALLBACK)(_QVUSBHOT_PLUG_EVETN event, const char* devicePath,
                                        void* param);

/* ---- What a transport does --------------------------------------------------------------- */
/* No function of a transport calls the library. */

/** Gets ready, such as opening the USB library. Called by QVCaptureInitInstance(), once until stop.
 * @return negative: it cannot, and nothing is listed, opened or stopped until the next
 *         QVCaptureInitInstance()
 * @threads the caller's */
typedef int (*QV_USB_START)(void* user);

/** Gives back what start took. Called when the instance has ended and no channel of a USB device is
 * open any more: by QVCaptureExitInstance() or by the last QVCloseChannel().
 * @threads the caller's */
typedef void (*QV_USB_STOP)(void* user);

/** Fills in the devices that are there. Called by QVCaptureInitInstance() and QVRefreshDevice();
 * never while another search is under way. A device whose records cannot be read is left out, so
 * that one broken device does not hide the others. A path must be an existing file for
 * qvcap-upgrade to take it; /dev/bus/usb/BBB/DDD is one, and is another one when a device is
 * plugged in again.
 * @param[out] entries   room for @p capacity, all zeros; texts are cut at their last byte
 * @return how many there are, also when there are more than @p capacity; negative when that cannot
 *         be told: the list stays as it was, whatever was filled in
 * @threads the caller's; channels may be at work on other threads meanwhile */
typedef int (*QV_USB_FIND)(_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity, void* user);

/** Opens the device of a path that a search gave. A path is open once at most: channels of the
 * same path share what this gave, until the last of them is closed: close the channels of a device
 * that has left before you open the one that came in its place. Another process must not reach
 * the device meanwhile, or its 0xF2 and 0xF3 mix with those of this one: claim an interface, and
 * refuse a device that is claimed.
 * @param[out] device  all zeros; what @p device->handle names belongs to the transport until close
 * @return negative, or a null handle: there is no such device or it is in use; it is not closed
 * @threads any; not twice at once */
typedef int (*QV_USB_OPEN)(const char* path, QV_USB_DEVICE* device, void* user);

/** Closes what open gave; called once for each. The device may have gone.
 * @threads any; no transfer of @p handle is under way */
typedef void (*QV_USB_CLOSE)(void* handle, void* user);

/** Reads the payload of a command. What it returns is not negative only when all @p size bytes
 * came: a short answer is a failure. Limit the time: nobody else does. After a failure the library
 * does not repeat the transfer. A handle whose device has gone fails for ever, also when the device
 * comes back: it would be another one in the middle of a work that it knows nothing of.
 * @param[in,out] data  the library's own memory; zeros, or for 0x09 and 0x0A a count in front
 * @return negative: the transfer failed
 * @threads any; one transfer at a time for each handle, those of other handles beside it */
typedef int (*QV_USB_GET)(void* handle, unsigned char command, void* data, unsigned int size,
                          void* user);

/** Sends the payload of a command, and fetches the device's answer to it when there is one. As for
 * get: all or nothing, a limit of time, no repetition. A set of 0xF2 that may not have arrived has
 * failed: the library sends the 0xF3 of a read only after a 0xF2 that succeeded, and nothing
 * comes between the two on one handle. While a device is busy, sets of 0xF4 come without a pause
 * and without an end: here is the place to wait between them, or to give up.
 * @param[in,out] data      @p size bytes, the library's own memory
 * @param[in]     answered  0: there is no answer, and @p data stays as it is; else @p size, and
 *                          the answer of so many bytes takes the place of what was sent. It tells
 *                          a read of firmware from a write
 * @return negative: the transfer, or its answer, failed
 * @threads as get */
typedef int (*QV_USB_SET)(void* handle, unsigned char command, void* data, unsigned int size,
                          unsigned int answered, void* user);

/** Waits until a device comes or goes, or the time is over; never longer, because the end of the
 * watching waits for it. Called again and again while somebody watches.
 * @param[out] event  which of the two         @param[out] path  512 bytes, all zeros
 * @return 0: nothing happened; positive: @p event and @p path tell; negative: it could not watch,
 *         and is called again after a pause of a tenth of a second
 * @threads the watcher's own, beside everything else; not after stop */
typedef int (*QV_USB_HOT_PLUG)(int milliseconds, _QVUSBHOT_PLUG_EVETN* event, char* path,
                               void* user);

/** A transport: what it is made of. Fill what is not used with zeros. */
typedef struct QV_USB_TRANSPORT {
    uint32_t size;      /**< sizeof(QV_USB_TRANSPORT) */
    QV_USB_START start; /**< may be null */
    QV_USB_STOP stop;   /**< may be null */
    QV_USB_FIND find;
    QV_USB_OPEN open;
    QV_USB_CLOSE close;
    QV_USB_GET get;
    QV_USB_SET set;
    QV_USB_HOT_PLUG hotPlug; /**< may be null: nobody can watch */
} QV_USB_TRANSPORT;

/* ---- Transport --------------------------------------------------------------------------- */

/** Supplies the transfers of USB devices, for all of the process. Call before
 * QVCaptureInitInstance().
 * @param[in] transport  is copied; null: none any more, as before the first call
 * @param[in] user       handed to every function of it; the caller keeps what it points to until
 *                       another transport was set
 * @retval QV_RESULT_FAILED       too late: the instance is there, or a channel of a USB device is
 *                                still open. Nothing changes
 * @retval QV_RESULT_BAD_ARGUMENT a size that is too small, or one of find, open, close, get and set
 *                                is missing. Nothing changes
 * @threads instance */
QV_API QV_RESULT QVSetUSBTransport(const QV_USB_TRANSPORT* transport, void* user);

/* ---- Coming and going -------------------------------------------------------------------- */

/** Has a callback told when USB devices come and go, until QVUnregisterUSBHotPlug() or the end of
 * the instance. The list of channels does not change by itself: see QVRefreshDevice().
 * @retval QV_RESULT_FAILED       there is no instance, the transport cannot watch, somebody watches
 *                                already, or there is no thread to be had
 * @retval QV_RESULT_BAD_ARGUMENT null callback
 * @threads instance */
QV_API QV_RESULT QVRegisterUSBHotPlug(QVUSB_HOT_PLUG_CALLBACK callback, void* param);

/** Ends it. The callback does not run any more when this returns; called by the callback itself,
 * it runs to its end and not again. Always QV_RESULT_OK.
 * @threads any, one at a time */
QV_API QV_RESULT QVUnregisterUSBHotPlug(void);

#ifdef __cplusplus
}
#endif

#endif
