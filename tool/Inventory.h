// The upgrade list: which channels to work on, whether each needs an upgrade and whether a safe one
// is possible. Reads identity and flash; writes nothing. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>

#include "QVCapture.h"

inline constexpr size_t kListTextSize = 256;

struct _QVCAP_UPGRADE_LIST_INFO_ {
    char captureName[kListTextSize];  // "00:01 product": board, channel, product name
    char devicePath[kListTextSize];
    char currentVersion[16];     // running, "major.minor"
    char newVersion[16];         // of the matching package; empty when there is none
    char boardSerialNumber[16];  // raw bytes, may lack a terminator
    uint8_t needUpgrade;         // the package is newer than the running firmware
    uint8_t safeUpgrade;         // writing only the upgrade image is enough
    char hardwareVersion;
};

// Results of the functions below; the command line passes them on.
inline constexpr int kInventoryOk = 0;
inline constexpr int kNotACaptureDevice = 1;
inline constexpr int kNoSuchDevice = 2;
inline constexpr int kBadArgument = 3;
inline constexpr int kDeviceFailed = 5;  // it could not be opened or queried

// "board:channel product", cut to the 64 characters of the channel's record.
inline constexpr size_t kCaptureNameSize = sizeof _QVCAP_UPGRADE_LIST_INFO_::captureName;
void PrintCaptureName(char (&text)[kCaptureNameSize], const _QVCAP_CHANNEL_INFO& info);

// 1 when `path` is the path of a channel in the library's list, of any family; else 0.
int IsPelixCaptureDevice(const char* path);

// Fills one record. When no package fits, the new version is empty and both flags stay as they
// were in `record`.
int GetDeviceInfo(const char* path, _QVCAP_UPGRADE_LIST_INFO_* record);

// Lists the channels of one board and one channel number, either of which may be kAnyIndex. The
// cards of the Lumo family share one firmware: only the first channel of each is listed.
// @param[in,out] count  capacity of `list` on entry, records on success; unchanged on failure
int GetDevicesInfo(_QVCAP_UPGRADE_LIST_INFO_* list, int* count, int board, int channel);

// Lists the channel that the argument of -d names: a device path, or "board:channel", which also
// becomes the filter (g_nBoardIndex, g_nChannelIndex).
int PraiseDeviceArg(char* arg, _QVCAP_UPGRADE_LIST_INFO_* list, int* count);

// Prints the table of g_arrChannsInfo.
void ListAllChannelInfo();
