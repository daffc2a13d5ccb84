/* Shows what the V4L2 node of a USB device offers: pixel formats and frame sizes.
 *
 *   query_formats DEVICE
 */
#include <stdio.h>

#include "QVCapture.h"

enum { kMost = 64 };

static void showFormats(QV_CHANNEL channel) {
    unsigned int fourccs[kMost];
    int count = kMost;
    if (QVGetVideoCaptureSupportColorFormat(channel, fourccs, &count) != QV_RESULT_OK) return;
    for (int i = 0; i < count; ++i)
        printf("format %c%c%c%c\n", (int)(fourccs[i] & 0xFF), (int)(fourccs[i] >> 8 & 0xFF),
               (int)(fourccs[i] >> 16 & 0xFF), (int)(fourccs[i] >> 24));
}

static void showSizes(QV_CHANNEL channel) {
    _QVCAP_VIDEO_RESOLUTION sizes[kMost];
    _QVCAP_VIDEO_RESOLUTION_LIST list = {kMost, sizes};
    int total = 0;
    if (QVGetVideoCaptureSupportListResolution(channel, &list, &total) != QV_RESULT_OK) return;
    for (uint32_t i = 0; i < list.count; ++i)
        printf("size %ux%u\n", (unsigned)sizes[i].width, (unsigned)sizes[i].height);
    if (total > (int)list.count) printf("and %d more\n", total - (int)list.count);
}

static void showRange(QV_CHANNEL channel) {
    _QVCAP_VIDEO_RESOLUTION_RANGE range;
    if (QVGetVideoCaptureSupportRangeResolution(channel, &range) != QV_RESULT_OK) return;
    printf("sizes %ux%u to %ux%u in steps of %ux%u\n", (unsigned)range.minWidth,
           (unsigned)range.minHeight, (unsigned)range.maxWidth, (unsigned)range.maxHeight,
           (unsigned)range.widthStep, (unsigned)range.heightStep);
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: query_formats DEVICE\n");
        return 2;
    }
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(argv[1]);
    int mode = 0;
    const QV_RESULT result = QVGetVideoCaptureSupportResolutionMode(channel, &mode);
    if (result != QV_RESULT_OK) {
        fprintf(stderr, "%s: has no V4L2 node that answers\n", argv[1]);
    } else {
        showFormats(channel);
        if (mode == QV_RESOLUTION_MODE_LIST)
            showSizes(channel);
        else
            showRange(channel);
    }
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    return result == QV_RESULT_OK ? 0 : 1;
}
