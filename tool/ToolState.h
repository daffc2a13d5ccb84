// All process-wide state of the tool: the command line's requests, the package files found and the
// channels to work on. No code. The tool is single-threaded.
#pragma once

#include <cstdint>

#include "FirmwarePackage.h"
#include "Inventory.h"

// Bits of g_dwCMD, one for each option of the command line.
inline constexpr uint32_t kCmdHelp = 0x02;
inline constexpr uint32_t kCmdList = 0x04;
inline constexpr uint32_t kCmdForce = 0x08;
inline constexpr uint32_t kCmdYes = 0x10;
inline constexpr uint32_t kCmdAll = 0x20;
inline constexpr uint32_t kCmdBoard = 0x40;
inline constexpr uint32_t kCmdDevice = 0x80;

inline constexpr int kAnyIndex = -1;      // filter value: every board, every channel
inline constexpr int kListCapacity = 64;  // records of the upgrade list

extern uint32_t g_dwCMD;
extern int g_nBoardIndex;    // filter of the list-building options, kAnyIndex at first
extern int g_nChannelIndex;  // the same for the channel's number on its board

extern _QVCAP_UPGRADE_LIST_INFO_ g_arrChannsInfo[kListCapacity];
extern int g_nDevicesNum;  // records of g_arrChannsInfo that are valid
// Counts the records that need an upgrade. Deliberate: never reset, so a list that is built twice
// counts twice.
extern int g_nDevicesNeedUpgrade;

extern QVFFileName* g_szQVFFileList;  // kMaxQVFFiles slots, null when there is no list
extern int g_nQVFFileNum;             // names in the list
