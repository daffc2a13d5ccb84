// What tests of V4L2 nodes share: the nodes of the kernel's test driver, channels that close
// themselves, and picture controls as v4l2-ctl sees them.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "lab/LabChannel.h"

namespace lab {

inline constexpr char kListNode[] = "/dev/video20";   // sizes are a list
inline constexpr char kRangeNode[] = "/dev/video21";  // sizes are a range
inline constexpr unsigned kVga = 640 * 360;           // pixels

constexpr unsigned Code(const char (&text)[5]) {
    unsigned code = 0;
    for (int i = 3; i >= 0; --i) code = code << 8 | static_cast<unsigned char>(text[i]);
    return code;
}

class LabVideoTest : public LabChannelTest {
  protected:
    // Waits for the node of a camera that was pulled out to go.
    static void AwaitGone(const std::string& path) {
        for (int tries = 0; tries < 600 && std::filesystem::exists(path); ++tries) usleep(100000);
        ASSERT_FALSE(std::filesystem::exists(path));
    }
};

struct Control {
    _QVCAP_VIDEO_PROC_PARAM_TYPE type;
    const char* name;
    int low, high, first, wanted;
};

// What one sets is what v4l2-ctl sees, and the other way round; all are as they were at the end.
inline void ExpectControls(QV_VIDEO_CAPTURE capture, const std::string& node,
                           const std::vector<Control>& rows) {
    for (const Control& row : rows) {
        SCOPED_TRACE(row.name);
        int low = 0;
        int high = 0;
        int first = 0;
        int value = 0;
        EXPECT_EQ(QV_RESULT_OK, QVGetVideoProcParamRange(capture, row.type, &low, &high, &first));
        EXPECT_EQ(row.low, low);
        EXPECT_EQ(row.high, high);
        EXPECT_EQ(row.first, first);
        EXPECT_EQ(QV_RESULT_OK, QVSetVideoProcParam(capture, row.type, row.wanted));
        EXPECT_EQ(QV_RESULT_OK, QVGetVideoProcParam(capture, row.type, &value));
        EXPECT_EQ(row.wanted, value);
        EXPECT_EQ(std::string(row.name) + ": " + std::to_string(row.wanted) + "\n",
                  Output("v4l2-ctl -d " + node + " --get-ctrl=" + row.name));
        Output("v4l2-ctl -d " + node + " --set-ctrl=" + row.name + "=" + std::to_string(row.first));
        EXPECT_EQ(QV_RESULT_OK, QVGetVideoProcParam(capture, row.type, &value));
        EXPECT_EQ(row.first, value);
    }
    int value = 55;
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoProcParam(capture, 4, &value));
    EXPECT_EQ(QV_RESULT_FAILED, QVSetVideoProcParam(capture, 4, 1));
    EXPECT_EQ(55, value);
}

}  // namespace lab
