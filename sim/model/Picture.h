// The test picture and the test tone, made from nothing but the frame's number.
// Pure functions, any thread.
#pragma once

#include <cstdint>

#include "Capture.h"
#include "QVCaptureTypes.h"

namespace qvsim {

// Every line begins and ends with the frame's number (32 bits, little-endian); a line too short
// for both begins with as much of it as fits. Between them stands one byte value that moves with
// frame and line. Number and lines together prove order, loss and tearing. False when the sink
// refused.
bool DrawPicture(const FrameRequest& request, uint32_t number);

// A sine of 16-bit samples behind the marker; the first eight bytes are the frame's number.
void DrawTone(uint32_t number, _QVCAP_AUDIO_CAPTURE_FRAME& frame);

}  // namespace qvsim
