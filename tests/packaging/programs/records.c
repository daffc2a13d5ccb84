/* What a program with 64-bit times and one without must agree on with the library: the sizes of all
 * that passes between them. The first line is the size of time_t itself. */
#include <QVCapture.h>
#include <stdio.h>
#include <time.h>

#define SIZE(type) printf(#type " %u\n", (unsigned)sizeof(type))

int main(void) {
    printf("time_t %u\n", (unsigned)sizeof(time_t));
    SIZE(QV_RESULT);
    SIZE(QV_CHANNEL);
    SIZE(_LARGE_INTEGER);
    SIZE(_RECT);
    SIZE(_QVCAP_CHANNEL_INFO);
    SIZE(_QVCAP_FIRMWARE_STORAGE);
    SIZE(_QVCAP_VIDEO_BUFFER_INFO);
    SIZE(_QVCAP_VIDEO_FRAME_INFO);
    SIZE(_QVCAP_VIDEO_CAPTURE_STATUS);
    SIZE(_QVCAP_AUDIO_CAPTURE_FRAME);
    SIZE(_QVCAP_VIDEO_PROCESS_SETTINGS);
    SIZE(_QVCAP_AUDIO_VOLUME);
    SIZE(_QVUSBCAP_CAPTURE_INFO);
    SIZE(_QVCAP_VIDEO_RESOLUTION_LIST);
    SIZE(_QVCAP_VIDEO_RESOLUTION_RANGE);
    QVCaptureInitInstance();
    printf("channels %d\n", QVGetChannelCount());
    QV_CHANNEL channel = QVOpenChannel(0, 0);
    long long now = 0;
    printf("clock %d\n", channel ? (int)QVGetDeviceTime(channel, &now) : -1);
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    return 0;
}
