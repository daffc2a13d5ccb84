// A first program in C++: three frames by callback, and a look at the signal.
//
//   frames /dev/video0
#include <poll.h>

#include <QVCapture.hpp>
#include <cstdio>

int main(int argc, char** argv) {
    const qvcapture::Instance instance;
    const qvcapture::Channel channel(argc == 2 ? argv[1] : "");
    const qvcapture::Worker worker(channel);
    qvcapture::Mailbox<qvcapture::FrameCopy> frames(4);
    const qvcapture::VideoCapture capture(channel, {qvcapture::FourCc("NV12"), 640, 360},
                                          frames.Sink());
    if (!capture.Status()) {
        std::fprintf(stderr, "frames: %s\n", capture.Status().Text());
        return 1;
    }
    qvcapture::FrameCopy frame;
    for (int taken = 0; taken < 3;) {
        pollfd waiting{frames.Fd(), POLLIN, 0};
        poll(&waiting, 1, -1);
        for (; taken < 3 && frames.Take(frame); ++taken)
            std::printf("frame %d: %zu bytes\n", taken + 1, frame.bytes.size());
    }
    _QVCAP_VIDEO_SIGNAL_STATUS signal;
    if (QVGetVideoSignalStatus(channel.Handle(), &signal) != QV_RESULT_OK) return 1;
    std::printf("signal: %d\n", signal.bytes[0]);  // as the simulated driver puts it there
    return 0;
}
