// Line length and frame size of every pixel format, against a table of its own.
#include "FrameLayout.h"

#include "QVCapture.h"

#include "gtest/gtest.h"

namespace qv {
namespace {

struct Expected {
    const char (&fourcc)[5];
    int width;
    int height;
    FrameLayout layout;
};

// A table stays a table.
// clang-format off
constexpr Expected kExpected[] = {
    {"NV12", 1920, 1080, {1920, 3110400}},
    {"NV21", 1920, 1080, {1920, 3110400}},
    {"YV12", 1920, 1080, {1920, 3110400}},
    {"I420", 1920, 1080, {1920, 3110400}},
    {"IYUV", 1920, 1080, {1920, 3110400}},
    {"P010", 1920, 1080, {3840, 6220800}},
    {"P210", 1920, 1080, {3840, 8294400}},
    {"NV16", 1920, 1080, {1920, 4147200}},
    {"NV61", 1920, 1080, {1920, 4147200}},
    {"YV16", 1920, 1080, {1920, 4147200}},
    {"I422", 1920, 1080, {1920, 4147200}},
    {"NV12", 1919, 1080, {1920, 3110400}},  // an odd width is padded
    {"NV12", 1920, 1079, {1920, 0}},        // an odd height has no whole chroma lines
    {"NV16", 1920, 1079, {1920, 4143360}},  // 4:2:2 takes odd heights
    {"P010", 1920, 1079, {3840, 0}},
    {"P010", 1919, 1080, {3838, 0}},
    {"P210", 1919, 1080, {3838, 0}},
    {"P210", 1920, 1079, {3840, 8286720}},
    {"GREY", 1921, 2, {1922, 3844}},
    {"Y800", 1920, 2, {1920, 3840}},
    {"Y8  ", 1, 1, {2, 2}},
    {"YUY2", 1920, 1080, {3840, 4147200}},
    {"YUYV", 1920, 1, {3840, 3840}},
    {"YVYU", 2, 3, {4, 12}},
    {"UYVY", 2, 3, {4, 12}},
    {"VYUY", 2, 3, {4, 12}},
    {"Y16 ", 2, 3, {4, 12}},
    {"RGB5", 2, 3, {4, 12}},
    {"BGR5", 2, 3, {4, 12}},
    {"RGB6", 2, 3, {4, 12}},
    {"BGR6", 2, 3, {4, 12}},
    {"RGB ", 1365, 1, {4096, 4096}},
    {"BGR ", 1365, 2, {4096, 8192}},
    {"IYU2", 2, 2, {6, 12}},
    {"v308", 2, 2, {6, 12}},
    {"AYUV", 3, 2, {12, 24}},
    {"UYVA", 3, 2, {12, 24}},
    {"VYUA", 3, 2, {12, 24}},
    {"v408", 3, 2, {12, 24}},
    {"v410", 3, 2, {12, 24}},
    {"Y410", 3, 2, {12, 24}},
    {"RGBA", 3, 2, {12, 24}},
    {"BGRA", 3, 2, {12, 24}},
    {"ARGB", 3, 2, {12, 24}},
    {"ABGR", 3, 2, {12, 24}},
    {"H264", 1920, 1080, {0, 0}},
    {"yuy2", 1920, 1080, {0, 0}},  // unknown
};
// clang-format on

TEST(FrameLayoutTest, EveryFormatHasItsStrideAndSize) {
    for (const Expected& row : kExpected)
        EXPECT_EQ(row.layout, LayoutOf(Fourcc(row.fourcc), row.width, row.height))
            << row.fourcc << " " << row.width << "x" << row.height;
}

TEST(FrameLayoutTest, ThePublicFunctionTellsTheSame) {
    for (const Expected& row : kExpected) {
        SCOPED_TRACE(row.fourcc);
        unsigned int stride = 0xCCCCCCCC;
        unsigned int size = 0xCCCCCCCC;
        const QV_RESULT result =
            QVGetFrameLayout(Fourcc(row.fourcc), row.width, row.height, &stride, &size);
        EXPECT_EQ(row.layout.size == 0 ? QV_RESULT_FAILED : QV_RESULT_OK, result);
        EXPECT_EQ(row.layout.size == 0 ? 0xCCCCCCCC : row.layout.stride, stride);
        EXPECT_EQ(row.layout.size == 0 ? 0xCCCCCCCC : row.layout.size, size);
    }
    unsigned int any = 0;
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetFrameLayout(Fourcc("YUY2"), 2, 2, nullptr, &any));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetFrameLayout(Fourcc("YUY2"), 2, 2, &any, nullptr));
}

TEST(FrameLayoutTest, DimensionsThatDoNotFitTheRequestGiveNoFrame) {
    for (const auto& [width, height] : {std::pair{-1, 10}, {10, -1}, {65536, 10}, {10, 65536}})
        EXPECT_EQ((FrameLayout{0, 0}), LayoutOf(Fourcc("YUY2"), width, height));
    EXPECT_EQ((FrameLayout{0, 0}), LayoutOf(Fourcc("NV12"), 0, 0));
}

TEST(FrameLayoutTest, ASizeBeyond32BitsCountsAsNone) {
    EXPECT_EQ(0u, LayoutOf(Fourcc("BGRA"), 65535, 65535).size);
    EXPECT_EQ(4294836224u, LayoutOf(Fourcc("YUY2"), 32768, 65534).size);  // the largest that fits
}

TEST(FrameLayoutTest, FourccsPackTheirFirstCharacterLowest) {
    EXPECT_EQ(0x3231564Eu, Fourcc("NV12"));
    EXPECT_EQ(0x20424752u, Fourcc("RGB "));
}

}  // namespace
}  // namespace qv
