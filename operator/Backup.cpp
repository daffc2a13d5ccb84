// Reads the images of a card until two readings agree, and writes them as packages. The command
// line is in BackupCommand.cpp; nothing here writes to a card.
#include "Backup.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "Digest.h"
#include "Files.h"
#include "Output.h"
#include "Package.h"

namespace qvo {
namespace {

namespace fs = std::filesystem;

// More than any card's flash: a header that names more is no header.
constexpr uint64_t kMostBytes = uint64_t{256} << 20;
constexpr int kMostReadings = 4;    // of one chunk, until two agree
constexpr int kMostNumbers = 1000;  // of backups of one version that differ

// Reads a chunk until two readings agree: the backup must equal the flash.
class SureReader {
  public:
    SureReader(const Card& card, const Progress& progress)
        : m_name(card.Name()), m_reader(card), m_progress(progress) {
        if (!m_reader.Problem().empty()) Fail(m_reader.Problem());
    }

    void SetTotal(uint64_t total) { m_total = total; }

    qvf::Bytes Read(uint32_t address, uint32_t size) {
        qvf::Bytes bytes(size);
        for (uint32_t at = 0; at < size;) {
            const uint32_t length = std::min(size - at, kReadChunk);
            ReadChunk(address + at, bytes.data() + at, length);
            at += length;
            m_done += length;
            if (m_progress) m_progress(std::min(m_done, m_total), m_total);
        }
        return bytes;
    }

    [[noreturn]] void Fail(const std::string& why) const {
        throw qvf::Mistake(m_name + ": no backup: " + why);
    }

  private:
    void ReadOnce(uint32_t address, uint8_t* to, uint32_t size) {
        if (!m_reader.Read(address, to, size)) Fail(m_reader.Problem());
    }

    void ReadChunk(uint32_t address, uint8_t* to, uint32_t size) {
        ReadOnce(address, to, size);
        for (int i = 1; i < kMostReadings; ++i) {
            ReadOnce(address, m_again.data(), size);
            if (std::equal(to, to + size, m_again.begin())) return;
            std::copy_n(m_again.begin(), size, to);
        }
        Fail("the flash reads differently each time at " + qvf::HexNumber(address, 8));
    }

    std::string m_name;
    CardReader m_reader;
    const Progress& m_progress;
    uint64_t m_done = 0;
    uint64_t m_total = 0;
    std::array<uint8_t, kReadChunk> m_again{};
};

uint32_t Number(const qvf::Bytes& bytes, size_t at, int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i)
        value |= uint32_t{bytes[at + static_cast<size_t>(i)]} << (8 * i);
    return value;
}

// The header at `address` with its table, as bytes; nothing when there is none.
std::optional<qvf::Bytes> HeaderAt(SureReader& reader, uint32_t address) {
    qvf::Bytes header = reader.Read(address, qvf::kFixedLength);
    if (!IsValidHeader(header)) return {};
    const auto table = static_cast<uint32_t>(Number(header, 10, 2) - qvf::kFixedLength);
    const qvf::Bytes entries = reader.Read(address + qvf::kFixedLength, table);
    header.insert(header.end(), entries.begin(), entries.end());
    return header;
}

struct Place {
    uint32_t address;
    uint32_t size;
};

std::vector<Place> SectionsOf(const qvf::Bytes& header) {
    std::vector<Place> places;
    for (size_t at = qvf::kFixedLength; at < header.size(); at += qvf::kEntryLength)
        places.push_back({Number(header, at + 16, 4), Number(header, at + 20, 4)});
    return places;
}

uint64_t DataSize(const qvf::Bytes& header) {
    uint64_t size = 0;
    for (const Place& place : SectionsOf(header)) size += place.size;
    return size;
}

// Header and sections, as in a package. Sections of the other image are included unchanged, because
// the header lists them; the mark behind them says that they are not this firmware's.
qvf::Bytes PackageOf(SureReader& reader, const qvf::Bytes& header, bool safe) {
    qvf::Bytes package = header;
    for (const Place& place : SectionsOf(header)) {
        const qvf::Bytes data = reader.Read(place.address, place.size);
        package.insert(package.end(), data.begin(), data.end());
    }
    const qvf::Bytes mark = SavedFromMark(safe);
    package.insert(package.end(), mark.begin(), mark.end());
    return package;
}

bool IsThere(const std::string& path, const qvf::Bytes& bytes) {
    try {
        return qvf::ReadFile(path) == bytes;
    } catch (const qvf::Mistake&) {
        return false;
    }
}

// A folder that is free, or that already holds the same package.
std::string FolderFor(const std::string& folder, const std::string& name, const qvf::Bytes& bytes,
                      bool* wasThere) {
    for (int number = 1; number <= kMostNumbers; ++number) {
        std::string place = folder + "/" + name;
        if (number > 1) place += "-" + std::to_string(number);
        std::error_code error;
        if (fs::symlink_status(place, error).type() == fs::file_type::not_found) return place;
        if (!IsThere(place + "/" + name + ".qvf", bytes)) continue;
        *wasThere = true;
        return place;
    }
    throw qvf::Mistake(folder + ": there are " + std::to_string(kMostNumbers) + " backups named " +
                       name + " already; remove the old ones");
}

// One image at a time is saved: cards without serial numbers may want the same name.
SavedImage Save(const Card& card, const std::string& folder, const qvf::Bytes& package, bool safe) {
    SavedImage saved;
    saved.safe = safe;
    saved.version = Number(package, 16, 4);
    saved.sha256 = qvf::Sha256(package);
    const std::string name = BackupName(card, saved.version, safe);
    static std::mutex oneAtATime;
    const std::lock_guard lock(oneAtATime);
    const std::string place = FolderFor(folder, name, package, &saved.wasThere);
    saved.path = place + "/" + name + ".qvf";
    if (saved.wasThere) return saved;
    const std::string digest = saved.sha256 + "  " + name + ".qvf\n";
    qvf::NewFolder files(place);
    qvf::WriteFile(files / (name + ".qvf"), package);
    // Not named ".qvf.sha256": qvcap-upgrade would take that for a package, too.
    qvf::WriteFile(files / (name + ".sha256"), qvf::Bytes(digest.begin(), digest.end()));
    files.Commit();
    return saved;
}

std::string Plain(const std::string& text, const char* otherwise) {
    std::string plain;
    for (const char c : text) {
        const bool kept = std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-';
        plain += kept ? c : '_';
    }
    return plain.empty() ? otherwise : plain;
}

void MakeFolder(const std::string& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error || !fs::is_directory(folder, error))
        throw qvf::Mistake(
            folder + ": cannot be made: " + (error ? error.message() : std::strerror(ENOTDIR)));
}

}  // namespace

std::string BackupName(const Card& card, uint32_t version, bool safe) {
    return Plain(card.serial, "no_serial") + "-" + std::to_string(card.channel) + "-" +
           Plain(card.product, "no_product") + "-" + qvf::VersionText(version) +
           (safe ? "-safe" : "-main");
}

Backup BackUpCard(const Card& card, const std::string& folder, const Progress& progress) {
    if (!card.problem.empty()) throw qvf::Mistake(card.Name() + ": no backup: " + card.problem);
    MakeFolder(folder);
    // On the heap: its buffer is large.
    const auto reader = std::make_unique<SureReader>(card, progress);
    std::optional<qvf::Bytes> headers[] = {
        HeaderAt(*reader, card.firmwareOffset),
        HeaderAt(*reader, card.firmwareOffset + kSafeHeaderDistance)};
    uint64_t total = 0;
    for (const auto& header : headers) {
        if (!header) continue;
        if (DataSize(*header) > kMostBytes)
            reader->Fail("a header in the flash tells of " + std::to_string(DataSize(*header)) +
                         " bytes, more than any card has");
        total += DataSize(*header);
    }
    reader->SetTotal(total);
    Backup backup;
    for (const bool safe : {false, true}) {
        const std::optional<qvf::Bytes>& header = headers[safe ? 1 : 0];
        if (header)
            backup.images.push_back(Save(card, folder, PackageOf(*reader, *header, safe), safe));
        else
            backup.notes.push_back(std::string(safe ? "the safe" : "the main") +
                                   " image has no valid header and is not saved");
    }
    return backup;
}

}  // namespace qvo
