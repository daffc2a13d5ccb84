#include "ToolState.h"

uint32_t g_dwCMD = 0;
int g_nBoardIndex = kAnyIndex;
int g_nChannelIndex = kAnyIndex;

_QVCAP_UPGRADE_LIST_INFO_ g_arrChannsInfo[kListCapacity];
int g_nDevicesNum = 0;
int g_nDevicesNeedUpgrade = 0;

QVFFileName* g_szQVFFileList = nullptr;
int g_nQVFFileNum = 0;
