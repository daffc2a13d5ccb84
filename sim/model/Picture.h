// The test picture and the test tone, computed only from the frame's number. Pure functions, any
// thread.
#pragma once

#include <cstdint>

#include "Capture.h"
#include "QVCaptureTypes.h"

namespace qvsim {

// Every line begins and ends with the frame's number (32 bits, little-endian); a line too short for
// both begins with as much of it as fits. Between them is one byte value that changes with frame
// and line. Number and lines together prove order, loss and tearing. False when the sink refused.
bool DrawPicture(const FrameRequest& request, uint32_t number);

// Sample `index` of a sine of so many kHz at 48 kHz.
int16_t ToneSample(uint64_t index, int kilohertz);

// A sine of 1 kHz in 16-bit samples after the marker; the first eight bytes are the frame's number.
void DrawTone(uint32_t number, _QVCAP_AUDIO_CAPTURE_FRAME& frame);

}  // namespace qvsim
