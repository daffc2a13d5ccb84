#include "FrameLayout.h"

#include <limits>

namespace qv {

namespace {

// The planar and semi-planar formats: luma lines first, then the chroma.
struct PlanarFormat {
    uint32_t fourcc;
    int bytesPerSample;  // of luma, per pixel
    int halves;          // frame bytes = stride * height * halves / 2
    bool evenHeight;     // chroma is subsampled by lines
};

constexpr PlanarFormat kPlanarFormats[] = {
    {Fourcc("NV12"), 1, 3, true},  {Fourcc("NV21"), 1, 3, true},  {Fourcc("YV12"), 1, 3, true},
    {Fourcc("I420"), 1, 3, true},  {Fourcc("IYUV"), 1, 3, true},  {Fourcc("P010"), 2, 3, true},
    {Fourcc("P210"), 2, 4, false}, {Fourcc("NV16"), 1, 4, false}, {Fourcc("NV61"), 1, 4, false},
    {Fourcc("YV16"), 1, 4, false}, {Fourcc("I422"), 1, 4, false},
};

struct PackedFormat {
    uint32_t fourcc;
    int bitsPerPixel;
};

constexpr PackedFormat kPackedFormats[] = {
    {Fourcc("GREY"), 8},  {Fourcc("Y800"), 8},  {Fourcc("Y8  "), 8},  {Fourcc("YUY2"), 16},
    {Fourcc("YUYV"), 16}, {Fourcc("YVYU"), 16}, {Fourcc("UYVY"), 16}, {Fourcc("VYUY"), 16},
    {Fourcc("Y16 "), 16}, {Fourcc("RGB5"), 16}, {Fourcc("BGR5"), 16}, {Fourcc("RGB6"), 16},
    {Fourcc("BGR6"), 16}, {Fourcc("IYU2"), 24}, {Fourcc("RGB "), 24}, {Fourcc("BGR "), 24},
    {Fourcc("v308"), 24}, {Fourcc("AYUV"), 32}, {Fourcc("UYVA"), 32}, {Fourcc("VYUA"), 32},
    {Fourcc("v408"), 32}, {Fourcc("v410"), 32}, {Fourcc("Y410"), 32}, {Fourcc("RGBA"), 32},
    {Fourcc("BGRA"), 32}, {Fourcc("ARGB"), 32}, {Fourcc("ABGR"), 32},
};

constexpr int64_t EvenUp(int64_t value) { return (value + 1) / 2 * 2; }

FrameLayout Layout(int64_t stride, int64_t size) {
    if (size > std::numeric_limits<uint32_t>::max()) size = 0;
    return {static_cast<uint32_t>(stride), static_cast<uint32_t>(size)};
}

FrameLayout PlanarLayout(const PlanarFormat& format, int64_t width, int64_t height) {
    // One-byte luma is padded to an even line length; two-byte luma is not, so an odd width gives
    // no multiple of four, which its chroma pairs need.
    const int64_t stride = format.bytesPerSample == 1 ? EvenUp(width) : width * 2;
    const bool wholePairs = stride % (int64_t{2} * format.bytesPerSample) == 0;
    const bool wholeLines = !format.evenHeight || height % 2 == 0;
    return Layout(stride, wholePairs && wholeLines ? stride * height * format.halves / 2 : 0);
}

}  // namespace

FrameLayout LayoutOf(uint32_t fourcc, int32_t width, int32_t height) {
    constexpr int32_t kLargest = std::numeric_limits<uint16_t>::max();
    if (width < 0 || width > kLargest || height < 0 || height > kLargest) return {0, 0};
    for (const PlanarFormat& format : kPlanarFormats)
        if (format.fourcc == fourcc) return PlanarLayout(format, width, height);
    for (const PackedFormat& format : kPackedFormats) {
        if (format.fourcc != fourcc) continue;
        const int64_t stride = EvenUp(int64_t{width} * format.bitsPerPixel / 8);
        return Layout(stride, stride * height);
    }
    return {0, 0};
}

}  // namespace qv
