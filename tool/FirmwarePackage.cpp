#include "FirmwarePackage.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "ToolState.h"

namespace {

constexpr char kMagic[4] = {'Q', 'V', 'F', 'H'};
constexpr std::string_view kUpgradePrefix = "Upgrade.";

// The name is tested first: looking at a foreign file would cost a call and can take for ever on a
// dead mount.
bool IsPackageFile(const char* name) {
    struct stat status;
    return strstr(name, ".qvf") != nullptr && stat(name, &status) == 0 && S_ISREG(status.st_mode);
}

// Never waits: a file that was regular when it was listed may be a FIFO by now.
FILE* OpenForReading(const char* path) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    FILE* file = fdopen(fd, "rb");
    if (file == nullptr) close(fd);
    return file;
}

// An open package file, which knows how many bytes are left.
class PackageFile {
  public:
    explicit PackageFile(const char* path) : m_file(OpenForReading(path)) {
        struct stat status;
        if (m_file != nullptr && fstat(fileno(m_file), &status) == 0 && S_ISREG(status.st_mode))
            m_left = static_cast<uint64_t>(status.st_size);
    }
    ~PackageFile() {
        if (m_file != nullptr) fclose(m_file);
    }
    PackageFile(const PackageFile&) = delete;
    PackageFile& operator=(const PackageFile&) = delete;

    bool Holds(uint32_t size) const { return size <= m_left; }

    bool Read(void* buffer, uint32_t size) {
        if (!Holds(size) || fread(buffer, 1, size, m_file) != size) return false;
        m_left -= size;
        return true;
    }

  private:
    FILE* m_file;
    uint64_t m_left = 0;
};

bool ReadHeader(PackageFile& file, _QV_FIRMWARE_HEADER* header) {
    if (!file.Read(header, kHeaderFixedLength)) return false;
    if (memcmp(header->magic, kMagic, sizeof kMagic) != 0) return false;
    const uint32_t tableLength = kSectionHeaderLength * header->sectionCount;
    return header->sectionCount <= kMaxSections &&
           header->headerLength == kHeaderFixedLength + tableLength &&
           file.Read(header->sections, tableLength);
}

bool ReadSections(PackageFile& file, const _QV_FIRMWARE_HEADER& header, unsigned char** data) {
    for (int i = 0; i < header.sectionCount; ++i) {
        const uint32_t size = header.sections[i].size;
        // Checked first: a damaged size must not allocate memory that the file could never fill.
        if (!file.Holds(size)) return false;
        data[i] = static_cast<unsigned char*>(malloc(std::max<size_t>(size, 1)));
        if (data[i] == nullptr || !file.Read(data[i], size)) return false;
    }
    return true;
}

}  // namespace

LoadedPackage::~LoadedPackage() { FreeSectionData(data, kMaxSections); }

void PrintVersion(char (&text)[kVersionTextSize], uint32_t version) {
    snprintf(text, sizeof text, "%d.%d", static_cast<int>(version >> 16),
             static_cast<int>(version & 0xFFFF));
}

int InitialQVFList() {
    ExitQVFList();
    char directory[kQVFNameSize];
    if (getcwd(directory, sizeof directory) == nullptr) return 1;
    g_szQVFFileList = static_cast<QVFFileName*>(malloc(kMaxQVFFiles * sizeof(QVFFileName)));
    g_nQVFFileNum = kMaxQVFFiles;
    const int result = GetQVFFileList(directory, g_szQVFFileList, &g_nQVFFileNum);
    if (result != 0) ExitQVFList();
    return result;
}

void ExitQVFList() {
    free(g_szQVFFileList);
    g_szQVFFileList = nullptr;
}

int GetQVFFileList(const char* dir, QVFFileName* names, int* count) {
    if (dir == nullptr || names == nullptr || *count < 1) return 1;
    DIR* stream = opendir(dir);
    if (stream == nullptr) {
        puts("Open dir error");
        *count = 0;
        return 1;
    }
    int taken = 0;
    while (taken < *count) {
        const dirent* entry = readdir(stream);
        if (entry == nullptr) break;
        if (!IsPackageFile(entry->d_name)) continue;
        snprintf(names[taken++], sizeof(QVFFileName), "%s", entry->d_name);
    }
    closedir(stream);
    *count = taken;
    return 0;
}

bool READQVF(const char* path, _QV_FIRMWARE_HEADER* header, unsigned char** data) {
    PackageFile file(path);
    const bool complete = ReadHeader(file, header) && ReadSections(file, *header, data);
    // The count may be anything after an early failure; there are no more slots than kMaxSections.
    if (!complete) FreeSectionData(data, std::min<int>(header->sectionCount, kMaxSections));
    return complete;
}

int GetUpgradeDataFromQVFFile(QV_CHANNEL channel, QVFFileName* names, int count,
                              _QV_FIRMWARE_HEADER* header, unsigned char** data) {
    if (IsNoChannel(channel) || names == nullptr || count == 0) return 1;
    // Deliberate: a failed query leaves zeros, which no sensible package matches.
    _QVCAP_CHANNEL_INFO info = {};
    QVGetChannelInfo(channel, &info);
    for (int i = 0; i < count; ++i) {
        if (!READQVF(names[i], header, data)) {
            printf("Read %s file failed\n", names[i]);
            continue;
        }
        if (header->hardwareVersion == static_cast<uint8_t>(info.hardwareVersion) &&
            header->productCode == info.productCode)
            return 0;
        FreeSectionData(data, header->sectionCount);
    }
    return 1;
}

bool IsMatchedSection(char normalMode, const _QV_FIRMWARE_SECTION_HEADER* section) {
    const bool forUpgradeImage =
        strncmp(section->name, kUpgradePrefix.data(), kUpgradePrefix.size()) == 0;
    return forUpgradeImage == (normalMode == 0);
}

bool IsCLRSection(const char* name) {
    const std::string_view text(name, strnlen(name, sizeof _QV_FIRMWARE_SECTION_HEADER::name));
    return text.find("Factory.CLR.") != text.npos || text.find("Upgrade.CLR") != text.npos;
}

void FreeSectionData(unsigned char** data, int count) {
    for (int i = 0; i < count; ++i) {
        free(data[i]);
        data[i] = nullptr;
    }
}
