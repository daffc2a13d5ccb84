/* Lists the USB devices that the transport finds, and the settings of the first inputs of each. */
#include <stdio.h>

#include "usb_transport.h"

int main(void) {
    if (QVSetUSBTransport(&usb_transport, NULL) != QV_RESULT_OK) return 1;
    QVCaptureInitInstance();
    for (int i = 0; i < QVGetChannelCount(); ++i) {
        _QVCAP_CHANNEL_INFO info;
        char path[512];
        unsigned int source = 0;
        if (QVGetChannelInfoByIndex(i, &info) != QV_RESULT_OK) continue;
        if (QVGetDevicePath(i, path) != QV_RESULT_OK) continue;
        printf("%s %.64s (%.64s), serial %.16s, firmware %u.%u", path, info.productName,
               info.familyName, info.boardSerialNumber, (unsigned)(info.firmwareVersion >> 16),
               (unsigned)(info.firmwareVersion & 0xFFFF));
        QV_CHANNEL channel = QVOpenChannelByPath(path);
        if (channel == NULL)
            printf(", in use\n");
        else if (QVGetVideoInputSource(channel, &source) == QV_RESULT_OK)
            printf(", video input 0x%x\n", source);
        else
            printf(", no answer\n");
        QVCloseChannel(channel);
    }
    QVCaptureExitInstance();
    return 0;
}
