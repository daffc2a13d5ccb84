// Draws the test picture and the test tone. Knows no capture.
#include "Picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

namespace qvsim {

bool DrawPicture(const FrameRequest& request, uint32_t number) {
    const uint32_t stride = request.stride == 0 ? request.size : request.stride;
    std::vector<uint8_t> line(stride);
    const uint32_t mark = std::min<uint32_t>(stride, sizeof number);
    uint32_t index = 0;
    for (uint64_t at = 0; at < request.size; at += stride, ++index) {
        const auto size = static_cast<uint32_t>(std::min<uint64_t>(stride, request.size - at));
        std::memset(line.data(), static_cast<uint8_t>(number + index), line.size());
        std::memcpy(line.data() + stride - mark, &number, mark);
        std::memcpy(line.data(), &number, mark);
        if (!request.sink(at, line.data(), size)) return false;
    }
    return true;
}

int16_t ToneSample(uint64_t index, int kilohertz) {
    constexpr size_t kPeriod = 48;  // samples of 1 kHz at 48 kHz
    static const std::array<int16_t, kPeriod> wave = [] {
        std::array<int16_t, kPeriod> samples{};
        for (size_t i = 0; i < kPeriod; ++i) {
            const double angle = 2 * 3.14159265358979323846 * static_cast<double>(i) / kPeriod;
            samples[i] = static_cast<int16_t>(std::lround(12000 * std::sin(angle)));
        }
        return samples;
    }();
    return wave[static_cast<size_t>(index % kPeriod) * static_cast<unsigned>(kilohertz) % kPeriod];
}

void DrawTone(uint32_t number, _QVCAP_AUDIO_CAPTURE_FRAME& frame) {
    constexpr size_t kSamples = sizeof frame.bytes12 / sizeof(int16_t);
    const uint64_t wide = number;
    std::memcpy(frame.bytes0, &wide, sizeof wide);
    frame.marker = QV_AUDIO_FRAME_MARKER;
    for (size_t i = 0; i < kSamples; ++i) {
        const int16_t sample = ToneSample(wide * kSamples + i, 1);
        std::memcpy(frame.bytes12 + i * sizeof sample, &sample, sizeof sample);
    }
}

}  // namespace qvsim
