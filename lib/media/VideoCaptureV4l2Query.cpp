// V4L2 queries: pixel formats, frame sizes and rates, picture controls; see VideoCaptureV4l2.h.
#include <fcntl.h>
#include <libv4l2.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include "VideoCaptureV4l2.h"
#include "base/Fourcc.h"

namespace {

constexpr int kFailed = -1;
constexpr uint32_t kMaxEnumerated = 4096;       // the end for a node whose list never ends
constexpr uint32_t kUnitsPerSecond = 10000000;  // of 100 ns

using qv::Fourcc;

struct FourccPair {
    uint32_t from;
    uint32_t to;
};

// A table stays a table.
// clang-format off
constexpr FourccPair kToV4L2[] = {
    {Fourcc("YUY2"), Fourcc("YUYV")}, {Fourcc("YUYV"), Fourcc("YUYV")},
    {Fourcc("BGR "), Fourcc("BGR3")}, {Fourcc("I420"), Fourcc("YU12")},
    {Fourcc("BGRA"), Fourcc("BGR4")},
};
constexpr FourccPair kFromV4L2[] = {
    {Fourcc("RGB4"), Fourcc("ARGB")}, {Fourcc("RGB3"), Fourcc("RGB ")},
    {Fourcc("BGR3"), Fourcc("BGR ")}, {Fourcc("YU12"), Fourcc("I420")},
    {Fourcc("RGBO"), Fourcc("RGB5")}, {Fourcc("BGR4"), Fourcc("BGRA")},
    {Fourcc("422P"), Fourcc("I422")}, {Fourcc("RGBP"), Fourcc("RGB6")},
};
// clang-format on

template <size_t size>
constexpr uint32_t Translate(const FourccPair (&table)[size], uint32_t code) {
    for (const FourccPair& pair : table)
        if (pair.from == code) return pair.to;
    return code;
}

// A node that is open during one query.
class Node {
  public:
    explicit Node(const char* path)
        : m_fd(path == nullptr ? -1 : v4l2_open(path, O_RDWR | O_NONBLOCK)) {}
    ~Node() {
        if (IsOpen()) v4l2_close(m_fd);
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    bool IsOpen() const { return m_fd >= 0; }

    bool Format(uint32_t index, uint32_t* pixelFormat) const {
        v4l2_fmtdesc description{};
        description.index = index;
        description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (index >= kMaxEnumerated || ioctl(m_fd, VIDIOC_ENUM_FMT, &description) < 0) return false;
        *pixelFormat = description.pixelformat;
        return true;
    }
    bool FrameSize(uint32_t index, uint32_t pixelFormat, v4l2_frmsizeenum* size) const {
        *size = {};
        size->index = index;
        size->pixel_format = pixelFormat;
        return index < kMaxEnumerated && ioctl(m_fd, VIDIOC_ENUM_FRAMESIZES, size) >= 0;
    }
    bool Interval(uint32_t index, uint32_t pixelFormat, _QVCAP_VIDEO_RESOLUTION size,
                  v4l2_frmivalenum* interval) const {
        *interval = {};
        interval->index = index;
        interval->pixel_format = pixelFormat;
        interval->width = size.width;
        interval->height = size.height;
        return index < kMaxEnumerated && ioctl(m_fd, VIDIOC_ENUM_FRAMEINTERVALS, interval) >= 0;
    }

  private:
    int m_fd;
};

bool IsRange(const v4l2_frmsizeenum& size) {
    return size.type == V4L2_FRMSIZE_TYPE_STEPWISE || size.type == V4L2_FRMSIZE_TYPE_CONTINUOUS;
}

_QVCAP_VIDEO_RESOLUTION_RANGE Range(const v4l2_frmsizeenum& size) {
    const v4l2_frmsize_stepwise& from = size.stepwise;
    const bool stepwise = size.type == V4L2_FRMSIZE_TYPE_STEPWISE;
    return {stepwise ? from.step_width : 1,
            stepwise ? from.step_height : 1,
            from.min_width,
            from.min_height,
            from.max_width,
            from.max_height};
}

// The size whose rates are queried. False for a size of an unknown kind.
bool RepresentativeSize(const v4l2_frmsizeenum& size, _QVCAP_VIDEO_RESOLUTION* out) {
    if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE)
        *out = {size.discrete.width, size.discrete.height};
    else if (IsRange(size))
        *out = {size.stepwise.max_width, size.stepwise.max_height};
    else
        return false;
    return true;
}

// The value of a count: how many were stored, or how many there are when there is no array.
int Reported(bool wanted, int capacity, int stored, int total) {
    return wanted && capacity != 0 ? stored : total;
}

}  // namespace

unsigned int QVFourcc2V4L2Fmt(unsigned int fourcc) { return Translate(kToV4L2, fourcc); }
unsigned int V4L2Fmt2QVFourcc(unsigned int pixelFormat) {
    return Translate(kFromV4L2, pixelFormat);
}

unsigned int GetVideoCtrlId(_QVCAP_VIDEO_PROC_PARAM_TYPE type) {
    switch (type) {
        case QV_VIDEO_PROC_BRIGHTNESS:
            return V4L2_CID_BRIGHTNESS;
        case QV_VIDEO_PROC_CONTRAST:
            return V4L2_CID_CONTRAST;
        case QV_VIDEO_PROC_HUE:
            return V4L2_CID_HUE;
        case QV_VIDEO_PROC_SATURATION:
            return V4L2_CID_SATURATION;
        default:
            return 0;
    }
}

int SetVideoProcParamV4L2(VideoCaptureV4L2Context* ctx, _QVCAP_VIDEO_PROC_PARAM_TYPE type,
                          int value) {
    if (ctx == nullptr || ctx->fd < 1) return kFailed;
    v4l2_control control{GetVideoCtrlId(type), value};
    return ioctl(ctx->fd, VIDIOC_S_CTRL, &control) < 0 ? kFailed : 0;
}

int GetVideoProcParamV4L2(VideoCaptureV4L2Context* ctx, _QVCAP_VIDEO_PROC_PARAM_TYPE type,
                          int* minimum, int* maximum, int* defaultValue, int* current) {
    if (ctx == nullptr || ctx->fd < 1) return kFailed;
    v4l2_queryctrl query{};
    query.id = GetVideoCtrlId(type);
    if (ioctl(ctx->fd, VIDIOC_QUERYCTRL, &query) < 0) return kFailed;
    if (minimum != nullptr) *minimum = query.minimum;
    if (maximum != nullptr) *maximum = query.maximum;
    if (defaultValue != nullptr) *defaultValue = query.default_value;
    if (current == nullptr) return 0;
    v4l2_control control{GetVideoCtrlId(type), 0};
    if (ioctl(ctx->fd, VIDIOC_G_CTRL, &control) < 0) return kFailed;
    *current = control.value;
    return 0;
}

int GetVideoCaptureSupportColorFormatV4L2(const char* devicePath, unsigned int* fourccs,
                                          int* count) {
    if (count == nullptr) return kFailed;
    const Node node(devicePath);
    if (!node.IsOpen()) return kFailed;
    int total = 0;
    int stored = 0;
    uint32_t pixelFormat = 0;
    for (uint32_t i = 0; node.Format(i, &pixelFormat); ++i) {
        const uint32_t fourcc = V4L2Fmt2QVFourcc(pixelFormat);
        if (fourcc == 0) continue;
        ++total;
        if (fourccs != nullptr && stored < *count) fourccs[stored++] = fourcc;
    }
    *count = Reported(fourccs != nullptr, *count, stored, total);
    return total == 0 ? kFailed : 0;
}

int GetVideoCaptureSupportResolutionV4L2(const char* devicePath, int* mode, int* count,
                                         _QVCAP_VIDEO_RESOLUTION_RANGE* range,
                                         _QVCAP_VIDEO_RESOLUTION_LIST* list) {
    const Node node(devicePath);
    if (!node.IsOpen()) return kFailed;
    uint32_t capacity = 0;
    if (list != nullptr && list->resolutions != nullptr) {
        capacity = list->count;
        list->count = 0;
    }
    uint32_t pixelFormat = 0;
    if (!node.Format(0, &pixelFormat)) return kFailed;
    v4l2_frmsizeenum size{};
    uint32_t index = 0;
    for (; node.FrameSize(index, pixelFormat, &size); ++index) {
        if (IsRange(size)) {
            if (range != nullptr) *range = Range(size);
            if (mode != nullptr) *mode = QV_RESOLUTION_MODE_RANGE;
            return 0;
        }
        if (size.type != V4L2_FRMSIZE_TYPE_DISCRETE) return kFailed;
        if (index < capacity)
            list->resolutions[list->count++] = {size.discrete.width, size.discrete.height};
    }
    if (index == 0) return kFailed;
    if (count != nullptr) *count = static_cast<int>(index);
    if (mode != nullptr) *mode = QV_RESOLUTION_MODE_LIST;
    return 0;
}

int GetVideoCaptureSupportFrameRateV4L2(const char* devicePath, VideoFrameRate* rates,
                                        VideoFrameFraction* fractions, int* count) {
    if (count == nullptr) return kFailed;
    const Node node(devicePath);
    uint32_t pixelFormat = 0;
    v4l2_frmsizeenum first{};
    _QVCAP_VIDEO_RESOLUTION size{};
    if (!node.IsOpen() || !node.Format(0, &pixelFormat) ||
        !node.FrameSize(0, pixelFormat, &first) || !RepresentativeSize(first, &size))
        return kFailed;
    int total = 0;
    int stored = 0;
    v4l2_frmivalenum interval{};
    for (uint32_t i = 0; node.Interval(i, pixelFormat, size, &interval); ++i) {
        if (interval.type != V4L2_FRMIVAL_TYPE_DISCRETE) return kFailed;
        const auto [numerator, denominator] = interval.discrete;
        if (numerator == 0 || denominator == 0) continue;  // no interval at all
        ++total;
        if (stored >= *count) continue;
        // Deliberate: the product is computed in 32 bits.
        if (rates != nullptr)
            rates[stored++] = {numerator * kUnitsPerSecond / denominator,
                               static_cast<float>(denominator) / static_cast<float>(numerator)};
        else if (fractions != nullptr)
            fractions[stored++] = {denominator, numerator};
    }
    *count = Reported(rates != nullptr || fractions != nullptr, *count, stored, total);
    return 0;
}
