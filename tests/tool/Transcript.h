// What the progress of one stage looks like, composed from the widths typed here a second time.
// Erase and verify clear one column more after the header, on a failure and at their end; write
// never does. Percentages are unsigned 32-bit.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "ToolTexts.h"

namespace qvtest {

struct StageTexts {
    const char* word;
    size_t width;
    size_t extra;              // after the header, on a failure, at the end
    bool endsAfterItsFailure;  // a failing section is followed by the end of the stage, too
};

inline constexpr StageTexts kErasing = {"Erasing", 27, 1, true};
inline constexpr StageTexts kWriting = {"Writting", 28, 0, true};
inline constexpr StageTexts kVerifying = {"Verifying", 29, 1, false};

inline std::string ProgressLine(const StageTexts& stage, uint32_t percentage) {
    char text[64];
    std::snprintf(text, sizeof text, "(%s ------------- %2d%%)", stage.word,
                  static_cast<int>(percentage));
    return text;
}

// `steps` are the bytes of the header and of every chunk; the stage stops before step `failing`,
// none when negative. `message` is part of the report of a failure.
inline std::string StageText(const StageTexts& stage, uint32_t total,
                             const std::vector<uint32_t>& steps, int failing = -1,
                             const std::string& message = {}) {
    std::string text = ProgressLine(stage, 0);
    uint32_t done = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
        if (static_cast<int>(i) == failing) {
            text += message + Clear(stage.width + stage.extra);
            if (i > 0 && stage.endsAfterItsFailure) text += Clear(stage.width + stage.extra);
            return text;
        }
        done += steps[i];
        text += Clear(stage.width + (i == 0 ? stage.extra : 0)) +
                ProgressLine(stage, done * 100 / total);
    }
    return text + Clear(stage.width + stage.extra);
}

inline uint32_t PercentageBefore(uint32_t total, const std::vector<uint32_t>& steps, size_t step) {
    uint32_t done = 0;
    for (size_t i = 0; i < step; ++i) done += steps[i];
    return done * 100 / total;
}

}  // namespace qvtest
