#include "Description.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <limits>
#include <optional>
#include <vector>

#include "Files.h"
#include "Toml.h"
#include "Words.h"

namespace qvf {
namespace {

constexpr char kDescriptionName[] = "description.toml";
constexpr char kTrailingName[] = "trailing.bin";

// One table of a description, which may have only the known keys: returns its values.
class Table {
  public:
    Table(const std::string& path, const toml::table& table, const std::vector<std::string>& known)
        : m_path(path), m_table(table) {
        for (const auto& [key, node] : m_table) {
            const std::string word(key.str());
            if (std::find(known.begin(), known.end(), word) == known.end())
                Fail(node, "'" + word + "' is not known here" + KnownWords(word, known));
        }
    }

    [[noreturn]] void Fail(const toml::node& at, const std::string& what) const {
        throw Mistake(m_path + ":" + std::to_string(at.source().begin.line) + ": " + what);
    }

    const toml::node* Find(const std::string& key) const { return m_table.get(key); }
    const toml::node& Need(const std::string& key) const {
        const toml::node* node = Find(key);
        if (node == nullptr) Fail(m_table, "'" + key + "' is missing");
        return *node;
    }

    uint32_t Number(const toml::node& node, const std::string& key, uint32_t most) const {
        const auto value = node.value_exact<int64_t>();
        if (!value || *value < 0 || *value > int64_t{most})
            Fail(node, "'" + key + "' is a number from 0 to " + std::to_string(most));
        return static_cast<uint32_t>(*value);
    }
    uint32_t NeedNumber(const std::string& key, uint32_t most) {
        return Number(Need(key), key, most);
    }

    std::string Text(const toml::node& node, const std::string& key) const {
        const auto value = node.value_exact<std::string>();
        if (!value) Fail(node, "'" + key + "' is a text in quotation marks");
        return *value;
    }

    // Hexadecimal digits for exactly the bytes of the array; zeros when the key is missing.
    template <size_t kSize>
    void Hex(const std::string& key, std::array<uint8_t, kSize>& out) {
        const toml::node* node = Find(key);
        if (node == nullptr) return;
        const std::string digits = Text(*node, key);
        if (digits.size() != 2 * kSize || !std::all_of(digits.begin(), digits.end(), [](char c) {
                return std::isxdigit(static_cast<unsigned char>(c)) != 0;
            }))
            Fail(*node, "'" + key + "' is " + std::to_string(2 * kSize) + " hexadecimal digits");
        for (size_t i = 0; i < kSize; ++i)
            out[i] = static_cast<uint8_t>(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
    }

    // The bytes of a named file in the description's folder.
    Bytes Content(const toml::node& node, const std::string& key) const {
        const std::filesystem::path folder = std::filesystem::path(m_path).parent_path();
        const std::string file = (folder / Text(node, key)).string();
        try {
            return ReadFile(file);
        } catch (const Mistake& mistake) {
            Fail(node, mistake.what());
        }
    }

  private:
    const std::string& m_path;
    const toml::table& m_table;
};

// "1.2", both from 0 to 65535.
uint32_t FirmwareVersion(Table& table) {
    const toml::node& node = table.Need("firmware");
    const std::string text = table.Text(node, "firmware");
    const size_t dot = text.find('.');
    uint32_t parts[2] = {};
    for (int i = 0; i < 2; ++i) {
        const std::string part =
            i == 0 ? text.substr(0, dot) : text.substr(std::min(text.size(), dot + 1));
        if (dot == text.npos || part.empty() || part.size() > 5 ||
            part.find_first_not_of("0123456789") != part.npos || std::stoul(part) > 0xFFFF)
            table.Fail(node, "'firmware' is \"major.minor\", each from 0 to 65535");
        parts[i] = static_cast<uint32_t>(std::stoul(part));
    }
    return parts[0] << 16 | parts[1];
}

// One character in quotation marks, or its number.
uint8_t HardwareVersion(Table& table) {
    const toml::node& node = table.Need("hardware");
    if (node.is_integer()) return static_cast<uint8_t>(table.Number(node, "hardware", 255));
    const auto text = node.value_exact<std::string>();
    if (!text || text->size() != 1)
        table.Fail(node, "'hardware' is one character in quotation marks or its number");
    return static_cast<uint8_t>((*text)[0]);
}

void ReadName(Table& table, Section& section) {
    const toml::node* hex = table.Find("name_hex");
    if (hex != nullptr) {
        if (const toml::node* name = table.Find("name"))
            table.Fail(*name, "either 'name' or 'name_hex', not both");
        table.Hex("name_hex", section.name);
        return;
    }
    const toml::node& node = table.Need("name");
    const std::string name = table.Text(node, "name");
    if (name.size() >= kNameLength)
        table.Fail(node,
                   "'name' has at most 15 characters; use 'name_hex' for 16 bytes as they are");
    std::copy(name.begin(), name.end(), section.name.begin());
}

// A file's bytes; or, for a clear section, whose data reaches no card, `size` bytes of `fill`.
Bytes SectionData(Table& table, const Section& section) {
    const toml::node* size = table.Find("size");
    const toml::node* fill = table.Find("fill");
    if (size == nullptr) {
        if (fill != nullptr) table.Fail(*fill, "'fill' goes with 'size'");
        const toml::node& file = table.Need("file");
        Bytes data = table.Content(file, "file");
        if (data.size() > 0xFFFFFFFFu) table.Fail(file, "the file has 4 GiB or more");
        return data;
    }
    if (const toml::node* file = table.Find("file"))
        table.Fail(*file, "either 'file' or 'size', not both");
    if (!section.IsClear())
        table.Fail(*size,
                   "'size' is for clear sections alone; what is written comes from a 'file'");
    const uint32_t count = table.Number(*size, "size", 0xFFFFFFFF);
    const uint32_t value = fill == nullptr ? 0xFF : table.Number(*fill, "fill", 0xFF);
    if (uint64_t{count} > std::numeric_limits<size_t>::max() / 4)
        table.Fail(*size, "'size' is too large for this computer's memory");
    return Bytes(count, static_cast<uint8_t>(value));
}

Section ReadSection(const std::string& path, const toml::table& toml) {
    Table table(path, toml, {"name", "name_hex", "address", "file", "size", "fill", "reserved24"});
    Section section;
    ReadName(table, section);
    section.address = table.NeedNumber("address", 0xFFFFFFFF);
    section.data = SectionData(table, section);
    section.size = static_cast<uint32_t>(section.data.size());
    table.Hex("reserved24", section.reserved24);
    return section;
}

void ReadSections(const std::string& path, Table& table, Package& package) {
    const toml::node* node = table.Find("section");
    if (node == nullptr) return;
    const toml::array* entries = node->as_array();
    if (entries == nullptr) table.Fail(*node, "'section' is a list of tables: [[section]]");
    for (const toml::node& entry : *entries) {
        if (!entry.is_table()) table.Fail(entry, "'section' is a list of tables: [[section]]");
        if (package.sections.size() == kMaxSections)
            table.Fail(entry, "a package has at most 16 sections");
        package.sections.push_back(ReadSection(path, *entry.as_table()));
    }
}

Package FromTable(const std::string& path, const toml::table& toml) {
    Table table(path, toml,
                {"product_code", "hardware", "firmware", "compatibility", "reserved4", "reserved15",
                 "reserved20", "trailing", "section"});
    Package package;
    package.productCode = static_cast<uint16_t>(table.NeedNumber("product_code", 0xFFFF));
    package.hardwareVersion = HardwareVersion(table);
    package.firmwareVersion = FirmwareVersion(table);
    package.compatibilityCode = static_cast<uint16_t>(table.NeedNumber("compatibility", 0xFFFF));
    table.Hex("reserved4", package.reserved4);
    table.Hex("reserved15", package.reserved15);
    table.Hex("reserved20", package.reserved20);
    if (const toml::node* trailing = table.Find("trailing"))
        package.trailing = table.Content(*trailing, "trailing");
    package.trailingSize = package.trailing.size();
    ReadSections(path, table, package);
    return package;
}

template <size_t kSize>
std::string HexLine(const char* key, const std::array<uint8_t, kSize>& bytes) {
    std::string line = std::string(key) + " = \"";
    for (const uint8_t byte : bytes) line += HexNumber(byte, 2).substr(2);
    return line + "\"\n";
}

// A description without the key gives zeros.
template <size_t kSize>
std::string ReservedLine(const char* key, const std::array<uint8_t, kSize>& bytes) {
    return bytes == std::array<uint8_t, kSize>{} ? "" : HexLine(key, bytes);
}

std::string Quoted(const std::string& plain) {
    std::string out = "\"";
    for (const char c : plain) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string HardwareValue(uint8_t version) {
    const std::string text = HardwareText(version);
    return text.size() == 1 ? Quoted(text) : std::to_string(version);
}

// "01-Factory.Main.bin": unique by its number, whatever the section's name.
std::string DataFileName(size_t number, const Section& section) {
    std::string name = (number < 10 ? "0" : "") + std::to_string(number) + "-";
    for (const char c : section.NameText())
        name += std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' ? c : '_';
    return name + ".bin";
}

std::string SectionText(const Section& section, const std::string& file) {
    return "\n[[section]]\n" +
           (section.NameIsPlain() ? "name = " + Quoted(section.NameText()) + "\n"
                                  : HexLine("name_hex", section.name)) +
           "address = " + HexNumber(section.address, 8) + "\n" + "file = " + Quoted(file) + "\n" +
           ReservedLine("reserved24", section.reserved24);
}

}  // namespace

Package ReadDescription(const std::string& path) {
    const Bytes bytes = ReadFile(path);
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    try {
        const toml::table table = ParseToml(text, path);
        return FromTable(path, table);
    } catch (const toml::parse_error& error) {
        throw Mistake(path + ":" + std::to_string(error.source().begin.line) + ": " +
                      std::string(error.description()));
    } catch (const std::logic_error& error) {
        throw Mistake(path + ":" + error.what());
    }
}

void WriteDescription(const Package& package, const NewFolder& folder) {
    std::string text = "# Firmware package; `qvftool create` makes it again, byte for byte.\n";
    text += "product_code = " + HexNumber(package.productCode, 4) + "\n";
    text += "hardware = " + HardwareValue(package.hardwareVersion) + "\n";
    text += "firmware = " + Quoted(VersionText(package.firmwareVersion)) + "\n";
    text += "compatibility = " + std::to_string(package.compatibilityCode) + "\n";
    text += ReservedLine("reserved4", package.reserved4);
    text += ReservedLine("reserved15", package.reserved15);
    text += ReservedLine("reserved20", package.reserved20);
    if (!package.trailing.empty()) {
        text += "trailing = " + Quoted(kTrailingName) + "\n";
        WriteFile(folder / kTrailingName, package.trailing);
    }
    for (size_t i = 0; i < package.sections.size(); ++i) {
        const std::string file = DataFileName(i + 1, package.sections[i]);
        WriteFile(folder / file, package.sections[i].data);
        text += SectionText(package.sections[i], file);
    }
    WriteFile(folder / kDescriptionName, Bytes(text.begin(), text.end()));
}

}  // namespace qvf
