#include "Inventory.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "FirmwarePackage.h"
#include "ToolState.h"

namespace {

// The compatibility code of firmware that never allows a safe upgrade.
constexpr uint16_t kNeverSafe = 1;

// Paths of USB channels can be too long for a record.
constexpr size_t kLibraryPathSize = 512;

struct DevicePath {
    char text[kLibraryPathSize] = {};
};

template <size_t kSize>
void CopyText(char (&to)[kSize], const char* from) {
    snprintf(to, kSize, "%s", from);
}

// The code that a package must have for a safe upgrade. A stored header of firmware other than the
// running one says nothing about it: then 0.
uint16_t ReferenceCode(const _QV_FIRMWARE_HEADER& stored, uint32_t runningVersion) {
    return stored.firmwareVersion == runningVersion ? stored.compatibilityCode : uint16_t{0};
}

bool ReadStoredHeader(QV_CHANNEL channel, _QV_FIRMWARE_HEADER* stored) {
    _QVCAP_FIRMWARE_STORAGE storage = {};
    if (QVGetFirmwareStorageInfo(channel, &storage) != QV_RESULT_OK) return false;
    unsigned int read = 0;
    return QVReadFirmwareData(channel, storage.firmwareOffset,
                              reinterpret_cast<unsigned char*>(stored), kHeaderFixedLength,
                              &read) == QV_RESULT_OK &&
           read == kHeaderFixedLength;
}

int CloseAndReturn(QV_CHANNEL channel, int result) {
    QVCloseChannel(channel);
    return result;
}

bool PassesFilter(const _QVCAP_CHANNEL_INFO& info, int board, int channel) {
    return (board == kAnyIndex || info.boardIndex == board) &&
           (channel == kAnyIndex || info.channelIndex == channel);
}

// Whether an earlier record already covers this channel's firmware.
bool SharesFirmwareWithListed(const _QVCAP_CHANNEL_INFO& info,
                              const _QVCAP_UPGRADE_LIST_INFO_* list, int count) {
    const std::string_view family(info.familyName,
                                  strnlen(info.familyName, sizeof info.familyName));
    if (family != "Lumo Capture") return false;
    for (int i = 0; i < count; ++i)
        if (strncmp(list[i].boardSerialNumber, info.boardSerialNumber,
                    sizeof info.boardSerialNumber) == 0)
            return true;
    return false;
}

// Sets the filter from "board:channel"; false unless there are exactly two fields. Empty fields are
// skipped.
bool SetFilterFromText(const char* arg) {
    char* fields = strdup(arg);
    if (fields == nullptr) return false;
    int count = 0;
    char* rest = nullptr;
    for (const char* field = strtok_r(fields, ":", &rest); field != nullptr;
         field = strtok_r(nullptr, ":", &rest)) {
        // Deliberate: masked, so that -1 means number 255 here, not every number.
        const int value = atoi(field) & 0xFF;
        if (count == 0) g_nBoardIndex = value;
        if (count == 1) g_nChannelIndex = value;
        ++count;
    }
    free(fields);
    return count == 2;
}

}  // namespace

void PrintCaptureName(char (&text)[kCaptureNameSize], const _QVCAP_CHANNEL_INFO& info) {
    snprintf(text, sizeof text, "%02d:%02d %.*s", info.boardIndex, info.channelIndex,
             static_cast<int>(sizeof info.productName), info.productName);
}

int IsPelixCaptureDevice(const char* path) {
    if (path == nullptr) return 0;
    const int count = QVGetChannelCount();
    for (int i = 0; i < count; ++i) {
        DevicePath listed;
        QVGetDevicePath(i, listed.text);
        if (strcmp(listed.text, path) == 0) return 1;
    }
    return 0;
}

int GetDeviceInfo(const char* path, _QVCAP_UPGRADE_LIST_INFO_* record) {
    if (path == nullptr || record == nullptr) return kBadArgument;
    if (access(path, F_OK) != 0) return kNoSuchDevice;
    if (IsPelixCaptureDevice(path) != 1) return kNotACaptureDevice;

    CopyText(record->devicePath, path);
    QV_CHANNEL channel = QVOpenChannelByPath(path);
    if (IsNoChannel(channel)) return kDeviceFailed;
    _QVCAP_CHANNEL_INFO info = {};
    if (QVGetChannelInfo(channel, &info) != QV_RESULT_OK)
        return CloseAndReturn(channel, kDeviceFailed);
    memcpy(record->boardSerialNumber, info.boardSerialNumber, sizeof info.boardSerialNumber);
    PrintCaptureName(record->captureName, info);
    PrintVersion(record->currentVersion, info.firmwareVersion);
    record->hardwareVersion = info.hardwareVersion;
    record->newVersion[0] = '\0';

    LoadedPackage package;
    // Deliberate: without a package the channel stays open until the process ends, so the driver
    // sees no close here. The order of later opens and requests is the same either way.
    if (GetUpgradeDataFromQVFFile(channel, g_szQVFFileList, g_nQVFFileNum, &package.header,
                                  package.data) != 0)
        return kInventoryOk;
    PrintVersion(record->newVersion, package.header.firmwareVersion);
    record->needUpgrade = info.firmwareVersion < package.header.firmwareVersion;
    if (record->needUpgrade) ++g_nDevicesNeedUpgrade;

    _QV_FIRMWARE_HEADER stored = {};
    if (!ReadStoredHeader(channel, &stored)) return CloseAndReturn(channel, kDeviceFailed);
    const uint16_t code = package.header.compatibilityCode;
    record->safeUpgrade = code == ReferenceCode(stored, info.firmwareVersion) && code != kNeverSafe;
    return CloseAndReturn(channel, kInventoryOk);
}

int GetDevicesInfo(_QVCAP_UPGRADE_LIST_INFO_* list, int* count, int board, int channel) {
    const int channels = QVGetChannelCount();
    int listed = 0;
    for (int i = 0; i < channels && listed < *count; ++i) {
        _QVCAP_CHANNEL_INFO info = {};
        DevicePath path;
        if (QVGetChannelInfoByIndex(i, &info) != QV_RESULT_OK) continue;
        if (!PassesFilter(info, board, channel)) continue;
        if (SharesFirmwareWithListed(info, list, listed)) continue;
        if (QVGetDevicePath(i, path.text) != QV_RESULT_OK) continue;
        const int result = GetDeviceInfo(path.text, &list[listed]);
        if (result != kInventoryOk) return result;
        ++listed;
    }
    *count = listed;
    return kInventoryOk;
}

int PraiseDeviceArg(char* arg, _QVCAP_UPGRADE_LIST_INFO_* list, int* count) {
    if (arg == nullptr) return kBadArgument;
    if (strchr(arg, ':') != nullptr) {
        if (!SetFilterFromText(arg)) return kBadArgument;
        return GetDevicesInfo(list, count, g_nBoardIndex, g_nChannelIndex);
    }
    if (*count < 1) return kInventoryOk;
    const int result = GetDeviceInfo(arg, &list[0]);
    if (result == kInventoryOk) *count = 1;
    return result;
}

void ListAllChannelInfo() {
    printf("total %d  need upgrade %d\n", g_nDevicesNum, g_nDevicesNeedUpgrade);
    if (g_nDevicesNum > 0)
        printf("%-30s |%-15s |%-15s |%-15s |%-15s\n", "capture name", "current ver", "hardware ver",
               "new ver", "status");
    for (int i = 0; i < g_nDevicesNum; ++i) {
        const _QVCAP_UPGRADE_LIST_INFO_& record = g_arrChannsInfo[i];
        printf("%-30s |%-15s |%-15c |%-15s |%-15s\n", record.captureName, record.currentVersion,
               record.hardwareVersion, record.newVersion,
               record.needUpgrade ? "Need upgrade" : "Not Need upgrade");
    }
}
