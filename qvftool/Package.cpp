#include "Package.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Files.h"

namespace qvf {
namespace {

constexpr char kMagic[] = "QVFH";

bool IsPrintable(uint8_t c) { return c >= 0x20 && c < 0x7F; }

// Reads fields from the front of a block; the caller has checked that it is long enough.
class Fields {
  public:
    explicit Fields(const uint8_t* at) : m_at(at) {}
    uint64_t Number(int bytes) {
        uint64_t value = 0;
        for (int i = 0; i < bytes; ++i) value |= uint64_t{*m_at++} << (8 * i);
        return value;
    }
    uint8_t U8() { return static_cast<uint8_t>(Number(1)); }
    uint16_t U16() { return static_cast<uint16_t>(Number(2)); }
    uint32_t U32() { return static_cast<uint32_t>(Number(4)); }
    template <size_t kSize>
    void Raw(std::array<uint8_t, kSize>& out) {
        std::copy_n(m_at, kSize, out.begin());
        m_at += kSize;
    }

  private:
    const uint8_t* m_at;
};

void Put(Bytes& out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

template <size_t kSize>
void Put(Bytes& out, const std::array<uint8_t, kSize>& bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
}

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
    throw Mistake(path + ": " + what);
}

Package ParseFixed(const std::string& path, const Bytes& bytes, size_t* count) {
    if (bytes.size() < kFixedLength)
        Fail(path, "ends after " + std::to_string(bytes.size()) +
                       " bytes, the header alone has 157: not a firmware package, or cut short");
    if (std::memcmp(bytes.data(), kMagic, 4) != 0)
        Fail(path, "does not begin with QVFH: not a firmware package");
    Package package;
    Fields fields(bytes.data() + 4);
    fields.Raw(package.reserved4);
    package.compatibilityCode = fields.U16();
    const uint16_t headerLength = fields.U16();
    package.productCode = fields.U16();
    package.hardwareVersion = fields.U8();
    fields.Raw(package.reserved15);
    package.firmwareVersion = fields.U32();
    fields.Raw(package.reserved20);
    *count = fields.U8();
    if (*count > kMaxSections)
        Fail(path, "offset 156: " + std::to_string(*count) + " sections, at most 16 are possible");
    const size_t expected = kFixedLength + kEntryLength * *count;
    if (headerLength != expected)
        Fail(path, "offset 10: header length " + std::to_string(headerLength) + ", but " +
                       std::to_string(*count) + " sections make " + std::to_string(expected));
    return package;
}

void ParseTable(const std::string& path, const Bytes& bytes, size_t count, Package& package) {
    if (bytes.size() < kEntryLength * count) Fail(path, "ends inside the section table");
    Fields fields(bytes.data());
    for (size_t i = 0; i < count; ++i) {
        Section section;
        fields.Raw(section.name);
        section.address = fields.U32();
        section.size = fields.U32();
        fields.Raw(section.reserved24);
        package.sections.push_back(std::move(section));
    }
}

}  // namespace

std::string Section::NameText() const {
    return std::string(name.begin(), std::find(name.begin(), name.end(), uint8_t{0}));
}

bool Section::NameIsPlain() const {
    const auto end = std::find(name.begin(), name.end(), uint8_t{0});
    return end != name.end() && std::all_of(name.begin(), end, IsPrintable) &&
           std::all_of(end, name.end(), [](uint8_t c) { return c == 0; });
}

bool Section::ForUpgradeImage() const { return NameText().starts_with("Upgrade."); }

bool Section::IsClear() const {
    const std::string text = NameText();
    return text.find("Factory.CLR.") != text.npos || text.find("Upgrade.CLR") != text.npos;
}

uint64_t Package::DataSize() const {
    uint64_t sum = 0;
    for (const Section& section : sections) sum += section.size;
    return sum;
}

Package ReadPackage(const std::string& path, Read what) {
    InputFile file(path);
    size_t count = 0;
    Package package = ParseFixed(path, file.Take(kFixedLength), &count);
    ParseTable(path, file.Take(kEntryLength * count), count, package);
    for (size_t i = 0; i < count; ++i) {
        Section& section = package.sections[i];
        // Checked before memory is allocated: a size may be damaged.
        if (section.size > file.Left())
            Fail(path, "section " + std::to_string(i + 1) + " has " + std::to_string(section.size) +
                           " bytes, but only " + std::to_string(file.Left()) +
                           " are left in the file");
        if (what == Read::kEverything)
            section.data = file.Take(section.size);
        else
            file.Skip(section.size);
    }
    package.trailingSize = file.Left();
    if (what == Read::kEverything) package.trailing = file.Take(file.Left());
    return package;
}

Bytes Serialize(const Package& package) {
    Bytes out(kMagic, kMagic + 4);
    Put(out, package.reserved4);
    Put(out, package.compatibilityCode, 2);
    Put(out, package.HeaderLength(), 2);
    Put(out, package.productCode, 2);
    Put(out, package.hardwareVersion, 1);
    Put(out, package.reserved15);
    Put(out, package.firmwareVersion, 4);
    Put(out, package.reserved20);
    Put(out, package.sections.size(), 1);
    for (const Section& section : package.sections) {
        Put(out, section.name);
        Put(out, section.address, 4);
        Put(out, section.size, 4);
        Put(out, section.reserved24);
    }
    for (const Section& section : package.sections)
        out.insert(out.end(), section.data.begin(), section.data.end());
    out.insert(out.end(), package.trailing.begin(), package.trailing.end());
    return out;
}

std::string VersionText(uint32_t version) {
    return std::to_string(version >> 16) + "." + std::to_string(version & 0xFFFF);
}

std::string HardwareText(uint8_t version) {
    if (IsPrintable(version) && version != ' ') return std::string(1, static_cast<char>(version));
    return HexNumber(version, 2);
}

std::string HexNumber(uint64_t value, int digits) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%0*llx", digits, static_cast<unsigned long long>(value));
    return text;
}

}  // namespace qvf
