#include "FlashEngine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Console.h"
#include "Inventory.h"
#include "ToolState.h"

namespace {

constexpr unsigned int kPostReconfigValue = 200;  // the driver defines its meaning
constexpr int kAnnouncementWidth = 80;

unsigned char g_blankPattern[kChunkSize];
unsigned char g_blankCheckBuffer[kChunkSize];
unsigned char g_verifyBuffer[kChunkSize];

// Calls `step(offset, length)` for each chunk; false as soon as one does.
template <typename Step>
bool ForEachChunk(uint32_t size, Step step) {
    for (uint32_t offset = 0; offset < size;) {
        const uint32_t length = std::min(size - offset, kChunkSize);
        if (!step(offset, length)) return false;
        offset += length;
    }
    return true;
}

// The data of one upgrade, and for each of the three stages its work on the header and on one chunk
// of a section. Every function returns false on failure.
class FlashJob {
  public:
    FlashJob(QV_CHANNEL channel, _QV_FIRMWARE_HEADER* header, unsigned char** data,
             const _QVCAP_FIRMWARE_STORAGE& storage, char mode)
        : m_channel(channel),
          m_header(header),
          m_data(data),
          m_headerAddress(storage.firmwareOffset + (mode == kSafeMode ? kSafeHeaderDistance : 0)),
          m_mode(mode) {}

    uint32_t HeaderLength() const { return m_header->headerLength; }
    int SectionCount() const { return std::min<int>(m_header->sectionCount, kMaxSections); }
    const _QV_FIRMWARE_SECTION_HEADER& Section(int i) const { return m_header->sections[i]; }
    bool TakesPart(int i) const { return IsMatchedSection(m_mode, &Section(i)); }

    // Bytes that count as 100%. Deliberate: unsigned 32-bit, it may wrap.
    uint32_t TotalBytes() const {
        uint32_t total = HeaderLength();
        for (int i = 0; i < SectionCount(); ++i)
            if (TakesPart(i)) total += Section(i).size;
        return total;
    }

    bool EraseHeader() {
        return QVEraseFirmwareData(m_channel, m_headerAddress, HeaderLength()) == QV_RESULT_OK;
    }
    bool EraseChunk(int i, uint32_t offset, uint32_t length) {
        return QVEraseFirmwareData(m_channel, Section(i).address + offset, length) == QV_RESULT_OK;
    }
    bool IsBlank(int i) {
        memset(g_blankPattern, 0xFF, sizeof g_blankPattern);
        return ForEachChunk(Section(i).size, [&](uint32_t offset, uint32_t length) {
            return ReadsAs(Section(i).address + offset, g_blankPattern, length, g_blankCheckBuffer);
        });
    }

    bool WriteHeader() {
        return QVWriteFirmwareData(m_channel, m_headerAddress, HeaderBytes(), HeaderLength()) ==
               QV_RESULT_OK;
    }
    bool WriteChunk(int i, uint32_t offset, uint32_t length) {
        return QVWriteFirmwareData(m_channel, Section(i).address + offset, m_data[i] + offset,
                                   length) == QV_RESULT_OK;
    }

    bool VerifyHeader() {
        return ReadsAs(m_headerAddress, HeaderBytes(), HeaderLength(), g_verifyBuffer);
    }
    bool VerifyChunk(int i, uint32_t offset, uint32_t length) {
        if (ReadsAs(Section(i).address + offset, m_data[i] + offset, length, g_verifyBuffer))
            return true;
        printf("read error %d\n", static_cast<int>(offset));
        return false;
    }

  private:
    unsigned char* HeaderBytes() { return reinterpret_cast<unsigned char*>(m_header); }

    bool ReadsAs(uint32_t address, const unsigned char* expected, uint32_t length,
                 unsigned char* buffer) {
        unsigned int read = 0;
        return QVReadFirmwareData(m_channel, address, buffer, length, &read) == QV_RESULT_OK &&
               read == length && memcmp(buffer, expected, length) == 0;
    }

    QV_CHANNEL m_channel;
    _QV_FIRMWARE_HEADER* m_header;
    unsigned char** m_data;
    uint32_t m_headerAddress;
    char m_mode;
};

struct Stage {
    const char* word;
    int failedResult;
    struct {
        int afterHeader, betweenChunks, onFailure, atEnd;
    } clearsBeyond;                // columns, beyond those of the progress line
    bool endsAfterSectionFailure;  // clears at its end also when a section has failed
    bool takesClearSections;
    bool (FlashJob::*header)();
    bool (FlashJob::*chunk)(int section, uint32_t offset, uint32_t length);
};

constexpr Stage kErase = {
    .word = "Erasing",
    .failedResult = kEraseFailed,
    .clearsBeyond = {.afterHeader = 1, .betweenChunks = 0, .onFailure = 1, .atEnd = 1},
    .endsAfterSectionFailure = true,
    .takesClearSections = true,
    .header = &FlashJob::EraseHeader,
    .chunk = &FlashJob::EraseChunk,
};
constexpr Stage kWrite = {
    .word = "Writting",
    .failedResult = kWriteFailed,
    .clearsBeyond = {.afterHeader = 0, .betweenChunks = 0, .onFailure = 0, .atEnd = 0},
    .endsAfterSectionFailure = true,
    .takesClearSections = false,
    .header = &FlashJob::WriteHeader,
    .chunk = &FlashJob::WriteChunk,
};
constexpr Stage kVerify = {
    .word = "Verifying",
    .failedResult = kVerifyFailed,
    .clearsBeyond = {.afterHeader = 1, .betweenChunks = 0, .onFailure = 1, .atEnd = 1},
    .endsAfterSectionFailure = false,
    .takesClearSections = false,
    .header = &FlashJob::VerifyHeader,
    .chunk = &FlashJob::VerifyChunk,
};
constexpr const Stage* kStages[] = {&kErase, &kWrite, &kVerify};

// The progress line of one stage, rewritten in place.
class ProgressLine {
  public:
    ProgressLine(const Stage& stage, uint32_t total)
        : m_stage(stage),
          m_total(total),
          m_width(snprintf(nullptr, 0, "(%s ------------- 10%%)", stage.word)) {
        Print();
    }

    // Deliberate: unsigned 32-bit arithmetic, which wraps above 42 MB.
    uint32_t Percentage() const { return m_total == 0 ? 0 : m_done * 100 / m_total; }

    void Advance(uint32_t bytes, int clearBeyond) {
        m_done += bytes;
        Clear(clearBeyond);
        Print();
    }
    void Clear(int beyond) { PrintClear(m_width + beyond); }

  private:
    void Print() {
        printf("(%s ------------- %2d%%)", m_stage.word, static_cast<int>(Percentage()));
        fflush(stdout);
    }

    const Stage& m_stage;
    uint32_t m_total;
    int m_width;  // of the line with a two-digit percentage, whatever it shows
    uint32_t m_done = 0;
};

bool RunSection(FlashJob& job, const Stage& stage, int i, ProgressLine& line) {
    const bool isClear = IsCLRSection(job.Section(i).name);
    if (isClear && !stage.takesClearSections) return true;
    const bool done = ForEachChunk(job.Section(i).size, [&](uint32_t offset, uint32_t length) {
        if (!(job.*stage.chunk)(i, offset, length)) return false;
        line.Advance(length, stage.clearsBeyond.betweenChunks);
        return true;
    });
    return done && (!isClear || job.IsBlank(i));
}

bool RunSections(FlashJob& job, const Stage& stage, ProgressLine& line) {
    for (int i = 0; i < job.SectionCount(); ++i)
        if (job.TakesPart(i) && !RunSection(job, stage, i, line)) return false;
    return true;
}

// False on failure, with the percentage reached in `progress`.
bool RunStage(FlashJob& job, const Stage& stage, unsigned int* progress) {
    ProgressLine line(stage, job.TotalBytes());
    const bool headerDone = (job.*stage.header)();
    if (headerDone) line.Advance(job.HeaderLength(), stage.clearsBeyond.afterHeader);
    const bool done = headerDone && RunSections(job, stage, line);
    if (!done) {
        *progress = line.Percentage();
        line.Clear(stage.clearsBeyond.onFailure);
        if (!headerDone || !stage.endsAfterSectionFailure) return false;
    }
    line.Clear(stage.clearsBeyond.atEnd);
    fflush(stdout);
    return done;
}

// The values in the messages about one channel.
struct Announcement {
    int index = 0;
    int count = 0;
    char name[kCaptureNameSize] = {};
    const char* verb = "";
    char current[kVersionTextSize] = {};
    char target[kVersionTextSize] = {};
};

void PrintStart(const Announcement& about) {
    printf("[%d/%d] [%s]  %s from %s to %s   ", about.index, about.count, about.name, about.verb,
           about.current, about.target);
    fflush(stdout);
}

// Whether to go ahead; if so, prints the line that the progress follows.
bool Confirm(Announcement& about, char mode) {
    about.verb = mode == kSafeMode ? "Safe upgrade" : "Upgrade";
    if ((g_dwCMD & kCmdYes) != 0) {
        PrintStart(about);
        return true;
    }
    printf("[%d/%d] [%s]  Do you want to %s from %s to %s? -- (y)-YES or (n)-NO:", about.index,
           about.count, about.name, mode == kSafeMode ? "safe upgrade" : "upgrade", about.current,
           about.target);
    fflush(stdout);
    if (!AskYesNo()) return false;
    PrintClear(kAnnouncementWidth);
    printf("\r");
    PrintStart(about);
    return true;
}

}  // namespace

int UpgradeInternel(QV_CHANNEL channel, int index, int count, char mode, unsigned int* progress) {
    _QVCAP_CHANNEL_INFO info = {};
    if (IsNoChannel(channel) || QVGetChannelInfo(channel, &info) != QV_RESULT_OK)
        return kCannotQuery;
    Announcement about;
    about.index = index;
    about.count = count;
    PrintCaptureName(about.name, info);

    LoadedPackage package;
    if (GetUpgradeDataFromQVFFile(channel, g_szQVFFileList, g_nQVFFileNum, &package.header,
                                  package.data) != 0)
        return kNoPackage;
    _QVCAP_FIRMWARE_STORAGE storage = {};
    if (QVGetFirmwareStorageInfo(channel, &storage) != QV_RESULT_OK) return kCannotQuery;
    PrintVersion(about.current, info.firmwareVersion);
    PrintVersion(about.target, package.header.firmwareVersion);

    const bool force = (g_dwCMD & kCmdForce) != 0;
    if (!force && info.firmwareVersion >= package.header.firmwareVersion) return kNotNewer;
    if (!Confirm(about, mode)) return kDeclined;
    return UpgradeFirmware(channel, &package.header, package.data, &storage, mode, progress);
}

int UpgradeFirmware(QV_CHANNEL channel, _QV_FIRMWARE_HEADER* header, unsigned char** data,
                    _QVCAP_FIRMWARE_STORAGE* storage, char mode, unsigned int* progress) {
    FlashJob job(channel, header, data, *storage, mode);
    for (const Stage* stage : kStages)
        if (!RunStage(job, *stage, progress)) return stage->failedResult;
    if (QVSetPostReconfig(channel, kPostReconfigValue) == QV_RESULT_OK) return kUpgraded;
    printf("Set post reconfig failed");
    fflush(stdout);
    return kPostReconfigFailed;
}
