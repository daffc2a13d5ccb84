/* A first program in C: waits for a frame of a channel and captures it, with nothing but the -dev
 * package.
 *
 *   frame /dev/video0 */
#include <QVCapture.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

static int fail(const char* what) {
    fprintf(stderr, "frame: %s\n", what);
    return 1;
}

static int capture(QV_CHANNEL channel, unsigned int fourcc, int width, int height) {
    unsigned int stride = 0;
    unsigned int size = 0;
    if (QVGetFrameLayout(fourcc, width, height, &stride, &size) != QV_RESULT_OK)
        return fail("no such format");
    unsigned char* picture = malloc(size);
    const unsigned long long done = QVCreateEvent();
    const unsigned long long frame = QVCreateEvent();
    const unsigned long long notify = QVRegisterNotify(channel, frame, QV_NOTIFY_VIDEO_FRAME);
    if (!picture || !notify || QVStartVideoCapture(channel, done) != QV_RESULT_OK)
        return fail("capture cannot be started");
    if (QVWaitEvent(frame, -1) != 1) return fail("no frame came");
    if (QVCaptureVideoFrameToVirtualAddress(channel, -1, (uintptr_t)picture, size, stride, 0, 0,
                                            fourcc, width, height) != QV_RESULT_OK ||
        QVWaitEvent(done, -1) != 1)
        return fail("the frame was not captured");
    _QVCAP_VIDEO_CAPTURE_STATUS status;
    if (QVGetVideoCaptureStatus(channel, &status) != QV_RESULT_OK || !status.frameCompleted)
        return fail("the frame is not complete");
    printf("a frame of %u bytes, %u a line\n", size, stride);
    QVStopVideoCapture(channel);
    QVUnregisterNotify(channel, notify);
    QVCloseEvent(frame);
    QVCloseEvent(done);
    free(picture);
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 2) return fail("usage: frame DEVICE");
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(argv[1]);
    const unsigned int nv12 = 'N' | 'V' << 8 | '1' << 16 | '2' << 24;
    const int status = channel ? capture(channel, nv12, 640, 360) : fail("no such channel");
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    return status;
}
