// Firmware package files (".qvf"): their records, the list of those in the current directory, and
// loading the one that fits a channel. The format is described in docs/man/qvf.5.scd.
// Nothing here touches a card's flash. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>

#include "QVCapture.h"

#pragma pack(push, 1)

struct _QV_FIRMWARE_SECTION_HEADER {
    char name[16];     // its beginning says which image it belongs to; may lack a terminator
    uint32_t address;  // flash address
    uint32_t size;     // bytes in the file and in flash
    uint8_t reserved24[4];
};

inline constexpr int kMaxSections = 16;

// The start of a package and, in flash, of the firmware area. Fields that the tool does not read
// are written to flash unchanged.
struct _QV_FIRMWARE_HEADER {
    char magic[4];
    uint8_t reserved4[4];
    uint16_t compatibilityCode;
    uint16_t headerLength;  // fixed part and section table, bytes
    uint16_t productCode;
    uint8_t hardwareVersion;
    uint8_t reserved15[1];
    uint32_t firmwareVersion;  // major in the high, minor in the low 16 bits
    uint8_t reserved20[136];
    uint8_t sectionCount;
    _QV_FIRMWARE_SECTION_HEADER sections[kMaxSections];
};

#pragma pack(pop)

inline constexpr uint32_t kHeaderFixedLength = 157;
inline constexpr uint32_t kSectionHeaderLength = 28;

static_assert(sizeof(_QV_FIRMWARE_SECTION_HEADER) == kSectionHeaderLength);
static_assert(offsetof(_QV_FIRMWARE_SECTION_HEADER, address) == 16);
static_assert(offsetof(_QV_FIRMWARE_SECTION_HEADER, size) == 20);
static_assert(sizeof(_QV_FIRMWARE_HEADER) == 605);
static_assert(offsetof(_QV_FIRMWARE_HEADER, compatibilityCode) == 8);
static_assert(offsetof(_QV_FIRMWARE_HEADER, headerLength) == 10);
static_assert(offsetof(_QV_FIRMWARE_HEADER, productCode) == 12);
static_assert(offsetof(_QV_FIRMWARE_HEADER, hardwareVersion) == 14);
static_assert(offsetof(_QV_FIRMWARE_HEADER, firmwareVersion) == 16);
static_assert(offsetof(_QV_FIRMWARE_HEADER, sectionCount) == 156);
static_assert(offsetof(_QV_FIRMWARE_HEADER, sections) == kHeaderFixedLength);

// All bits set means no channel for the tool; the library's own failure value, null, means a
// channel that cannot be queried.
inline bool IsNoChannel(QV_CHANNEL channel) { return reinterpret_cast<intptr_t>(channel) == -1; }

inline constexpr int kMaxQVFFiles = 32;
inline constexpr size_t kQVFNameSize = 256;
typedef char QVFFileName[kQVFNameSize];

// A package in memory. Releases its section data.
struct LoadedPackage {
    _QV_FIRMWARE_HEADER header = {};
    unsigned char* data[kMaxSections] = {};

    LoadedPackage() = default;
    LoadedPackage(const LoadedPackage&) = delete;
    LoadedPackage& operator=(const LoadedPackage&) = delete;
    ~LoadedPackage();
};

// Major and minor of a firmware version, as every message shows them.
inline constexpr size_t kVersionTextSize = 16;
void PrintVersion(char (&text)[kVersionTextSize], uint32_t version);

// Fills g_szQVFFileList and g_nQVFFileNum from the current directory; non-zero on failure.
int InitialQVFList();
void ExitQVFList();

// Names of the regular files in `dir` that contain ".qvf", in directory order. They are looked up
// relative to the current directory.
// @param[in,out] count  capacity of `names` on entry, names found on return; 0 when `dir` cannot
//                       be opened
// @return 0 or 1
int GetQVFFileList(const char* dir, QVFFileName* names, int* count);

// Loads a whole package.
// @param[out] data  kMaxSections null pointers on entry; on success one buffer for each section,
//                   to be released with FreeSectionData(); on failure null again
bool READQVF(const char* path, _QV_FIRMWARE_HEADER* header, unsigned char** data);

// Loads the first listed package for the channel's product code and hardware version. Packages that
// cannot be read are reported and skipped.
// @return 0 when header and data are loaded, 1 when no package fits
int GetUpgradeDataFromQVFFile(QV_CHANNEL channel, QVFFileName* names, int count,
                              _QV_FIRMWARE_HEADER* header, unsigned char** data);

// Whether the section belongs to the upgrade: "Upgrade." sections to a safe one (normalMode 0), all
// others to a normal one.
bool IsMatchedSection(char normalMode, const _QV_FIRMWARE_SECTION_HEADER* section);

// Whether the section's range is only erased and checked to be blank. Reads at most 16 characters
// of the name.
bool IsCLRSection(const char* name);

void FreeSectionData(unsigned char** data, int count);
