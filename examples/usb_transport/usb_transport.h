/* The transport of usb_transport.c, for QVSetUSBTransport(); it ignores `user`. */
#ifndef USB_TRANSPORT_H
#define USB_TRANSPORT_H

#include "QVCapture.h"

#ifdef __cplusplus
extern "C" {
#endif

extern const QV_USB_TRANSPORT usb_transport;

#ifdef __cplusplus
}
#endif

#endif
