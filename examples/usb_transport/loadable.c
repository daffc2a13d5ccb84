/* Makes the transport of usb_transport.c an object that qvcap-usb-run(1) loads into programs which
 * cannot call QVSetUSBTransport() themselves:
 *
 *   cc -shared -fPIC loadable.c usb_transport.c -o usb_transport.so
 *      $(pkg-config --cflags qvcapture) $(pkg-config --libs libusb-1.0)
 *
 * It is not linked with the library: it does nothing in a program that does not use the library,
 * such as a shell that starts one. */
#include <stdio.h>

#include "usb_transport.h"

__attribute__((weak)) QV_RESULT QVSetUSBTransport(const QV_USB_TRANSPORT* transport, void* user);

__attribute__((constructor)) static void Supply(void) {
    if (QVSetUSBTransport == NULL) return;
    if (QVSetUSBTransport(&usb_transport, NULL) != QV_RESULT_OK)
        fprintf(stderr, "usb_transport: the library takes no transport\n");
}
