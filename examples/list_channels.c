/* Lists the capture channels: path, board and channel number, product, serial, firmware. */
#include <stdio.h>

#include "QVCapture.h"

int main(void) {
    QVCaptureInitInstance();
    const int count = QVGetChannelCount();
    for (int i = 0; i < count; ++i) {
        _QVCAP_CHANNEL_INFO info;
        char path[512];
        if (QVGetChannelInfoByIndex(i, &info) != QV_RESULT_OK) continue;
        if (QVGetDevicePath(i, path) != QV_RESULT_OK) continue;
        /* Texts from a device are printed bounded: they may lack a terminator. */
        printf("%-14s %02d:%02d %.64s (%.64s), serial %.16s, firmware %u.%u\n", path,
               info.boardIndex, info.channelIndex, info.productName, info.familyName,
               info.boardSerialNumber, (unsigned)(info.firmwareVersion >> 16),
               (unsigned)(info.firmwareVersion & 0xFFFF));
    }
    if (count == 0) printf("no capture channel found: is the driver loaded?\n");
    QVCaptureExitInstance();
    return 0;
}
