#include "Description.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <limits>
#include <optional>
#include <vector>

#include "Files.h"
#include "TomlTable.h"

namespace qvf {
namespace {

constexpr char kDescriptionName[] = "description.toml";
constexpr char kTrailingName[] = "trailing.bin";

// Hexadecimal digits for exactly the bytes of the array; zeros when the key is missing.
template <size_t kSize>
void ReadHex(const TomlTable& table, const std::string& key, std::array<uint8_t, kSize>& out) {
    const toml::node* node = table.Find(key);
    if (node == nullptr) return;
    const std::string digits = TomlTable::TextOf(*node, key);
    if (digits.size() != 2 * kSize || !std::all_of(digits.begin(), digits.end(), [](char c) {
            return std::isxdigit(static_cast<unsigned char>(c)) != 0;
        }))
        throw TomlMistake(*node, key + " is " + std::to_string(2 * kSize) + " hexadecimal digits");
    for (size_t i = 0; i < kSize; ++i)
        out[i] = static_cast<uint8_t>(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
}

uint32_t NumberOf(const toml::node& node, const std::string& key, uint32_t most) {
    return static_cast<uint32_t>(TomlTable::IntegerOf(node, key, 0, most));
}

// The bytes of a file that a text names, beside the description.
Bytes ContentOf(const toml::node& node, const std::string& key, const std::string& description) {
    const std::filesystem::path folder = std::filesystem::path(description).parent_path();
    const std::string file = (folder / TomlTable::TextOf(node, key)).string();
    try {
        return ReadFile(file);
    } catch (const Mistake& mistake) {
        throw TomlMistake(node, mistake.what());
    }
}

// One character in quotation marks, or its number.
uint8_t HardwareVersion(const TomlTable& table) {
    const toml::node& node = table.Need("hardware");
    if (node.is_integer()) return static_cast<uint8_t>(NumberOf(node, "hardware", 255));
    const auto text = node.value_exact<std::string>();
    if (!text || text->size() != 1)
        throw TomlMistake(node, "hardware is one character in quotation marks or its number");
    return static_cast<uint8_t>((*text)[0]);
}

void ReadName(const TomlTable& table, Section& section) {
    const toml::node* hex = table.Find("name_hex");
    if (hex != nullptr) {
        if (const toml::node* name = table.Find("name"))
            throw TomlMistake(*name, "either name or name_hex, not both");
        ReadHex(table, "name_hex", section.name);
        return;
    }
    const toml::node& node = table.Need("name");
    const std::string name = TomlTable::TextOf(node, "name");
    if (name.size() >= kNameLength)
        throw TomlMistake(node,
                          "name has at most 15 characters; use name_hex for 16 bytes as they are");
    std::copy(name.begin(), name.end(), section.name.begin());
}

// A file's bytes; or, for a section that is cleared and whose data no card gets, as many as wanted
// of one value.
Bytes SectionData(const std::string& path, const TomlTable& table, const Section& section) {
    const toml::node* size = table.Find("size");
    const toml::node* fill = table.Find("fill");
    if (size == nullptr) {
        if (fill != nullptr) throw TomlMistake(*fill, "fill goes with size");
        const toml::node& file = table.Need("file");
        Bytes data = ContentOf(file, "file", path);
        if (data.size() > 0xFFFFFFFFu) throw TomlMistake(file, "the file has 4 GiB or more");
        return data;
    }
    if (const toml::node* file = table.Find("file"))
        throw TomlMistake(*file, "either file or size, not both");
    if (!section.IsClear())
        throw TomlMistake(*size,
                          "size is for clear sections alone; what is written comes from a file");
    const uint32_t count = NumberOf(*size, "size", 0xFFFFFFFF);
    const uint32_t value = fill == nullptr ? 0xFF : NumberOf(*fill, "fill", 0xFF);
    if (uint64_t{count} > std::numeric_limits<size_t>::max() / 4)
        throw TomlMistake(*size, "size is too large for this computer's memory");
    return Bytes(count, static_cast<uint8_t>(value));
}

Section ReadSection(const std::string& path, const toml::table& toml) {
    const TomlTable table(toml,
                          {"name", "name_hex", "address", "file", "size", "fill", "reserved24"});
    Section section;
    ReadName(table, section);
    section.address = NumberOf(table.Need("address"), "address", 0xFFFFFFFF);
    section.data = SectionData(path, table, section);
    section.size = static_cast<uint32_t>(section.data.size());
    ReadHex(table, "reserved24", section.reserved24);
    return section;
}

void ReadSections(const std::string& path, const TomlTable& table, Package& package) {
    const toml::node* node = table.Find("section");
    if (node == nullptr) return;
    const toml::array* entries = node->as_array();
    if (entries == nullptr) throw TomlMistake(*node, "section is a list of tables: [[section]]");
    for (const toml::node& entry : *entries) {
        if (!entry.is_table()) throw TomlMistake(entry, "section is a list of tables: [[section]]");
        if (package.sections.size() == kMaxSections)
            throw TomlMistake(entry, "a package has at most 16 sections");
        package.sections.push_back(ReadSection(path, *entry.as_table()));
    }
}

Package FromTable(const std::string& path, const toml::table& toml) {
    const TomlTable table(toml, {"product_code", "hardware", "firmware", "compatibility",
                                 "reserved4", "reserved15", "reserved20", "trailing", "section"});
    Package package;
    package.productCode =
        static_cast<uint16_t>(NumberOf(table.Need("product_code"), "product_code", 0xFFFF));
    package.hardwareVersion = HardwareVersion(table);
    package.firmwareVersion = TomlTable::VersionOf(table.Need("firmware"), "firmware");
    package.compatibilityCode =
        static_cast<uint16_t>(NumberOf(table.Need("compatibility"), "compatibility", 0xFFFF));
    ReadHex(table, "reserved4", package.reserved4);
    ReadHex(table, "reserved15", package.reserved15);
    ReadHex(table, "reserved20", package.reserved20);
    if (const toml::node* trailing = table.Find("trailing"))
        package.trailing = ContentOf(*trailing, "trailing", path);
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

// Zeros are what a description without the key makes.
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

// "01-Factory.Main.bin": unique by its number, whatever the name holds.
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
    Package package;
    const auto mistake =
        ReadToml(text, path, [&](const toml::table& root) { package = FromTable(path, root); });
    if (mistake) throw Mistake(mistake->In(path));
    return package;
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
