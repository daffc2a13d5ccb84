/* Shows the volume of a channel's sound card, or sets it.
 *
 *   volume DEVICE NODE             show      NODE counts for USB devices only
 *   volume DEVICE NODE VALUE       set every channel: 0 to 100 for PCIe cards, 1/100 dB for USB
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "QVCapture.h"

static int show(QV_CHANNEL channel, unsigned int node) {
    _QVCAP_AUDIO_VOLUME volume;
    memset(&volume, 0, sizeof volume);
    if (QVGetAudioVolume(channel, node, &volume) != QV_RESULT_OK) return 1;
    for (int i = 0; i < volume.channelCount && i < QV_AUDIO_VOLUME_CHANNELS; ++i)
        printf("channel %d: %d%s\n", i, volume.volume[i], volume.mute[i] ? ", muted" : "");
    return 0;
}

static int set(QV_CHANNEL channel, unsigned int node, int value) {
    _QVCAP_AUDIO_VOLUME volume;
    memset(&volume, 0, sizeof volume);
    /* A device without sound channels leaves the count 0; most have two. */
    if (QVGetAudioVolume(channel, node, &volume) != QV_RESULT_OK) volume.channelCount = 2;
    for (int i = 0; i < QV_AUDIO_VOLUME_CHANNELS; ++i) {
        volume.volume[i] = (int16_t)value;
        volume.mute[i] = 0;
    }
    return QVSetAudioVolume(channel, node, &volume) == QV_RESULT_OK ? 0 : 1;
}

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        fprintf(stderr, "usage: volume DEVICE NODE [VALUE]\n");
        return 2;
    }
    const unsigned int node = (unsigned int)strtoul(argv[2], NULL, 10);
    QVCaptureInitInstance();
    QV_CHANNEL channel = QVOpenChannelByPath(argv[1]);
    const int status = argc == 3 ? show(channel, node) : set(channel, node, atoi(argv[3]));
    if (status != 0) fprintf(stderr, "%s: no sound card of it was found, or it refused\n", argv[1]);
    QVCloseChannel(channel);
    QVCaptureExitInstance();
    return status;
}
