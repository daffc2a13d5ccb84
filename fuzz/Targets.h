// The fuzz targets: functions that take any bytes, and abort when one of their own checks fails.
//
// The same functions run under libFuzzer (scripts/fuzz) and over the corpus in the ordinary tests
// (tests/fuzz). They print to standard output; the caller redirects it. One thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvfuzz {

struct Target {
    const char* name;  // also the folder of its corpus
    void (*run)(const uint8_t* data, size_t size);
};

void LoadPackage(const uint8_t* data, size_t size);  // the upgrade tool's package loader
void ReadPackage(const uint8_t* data,
                 size_t size);  // qvftool's loader, and everything that uses it
void ReadDescription(const uint8_t* data, size_t size);  // qvftool's TOML description
void ParseScenario(const uint8_t* data, size_t size);    // scenario files of the simulation
void ListDevices(const uint8_t* data, size_t size);      // arbitrary driver records and flash
void RunCommandLine(const uint8_t* data, size_t size);   // arguments, then keys
void JudgeFlash(const uint8_t* data, size_t size);       // qvcap's judge: any flash, any package
void ParseOutput(const uint8_t* data, size_t size);      // the tool's output, read by qvcap
void ReadHistoryFile(const uint8_t* data, size_t size);  // qvcap's history
void ReadStateFiles(const uint8_t* data, size_t size);   // a folder of simulated cards

inline constexpr Target kTargets[] = {
    {"package", LoadPackage},    {"qvftool", ReadPackage},    {"description", ReadDescription},
    {"scenario", ParseScenario}, {"devices", ListDevices},    {"commandline", RunCommandLine},
    {"flash", JudgeFlash},       {"tooloutput", ParseOutput}, {"history", ReadHistoryFile},
    {"state", ReadStateFiles},
};

}  // namespace qvfuzz
