// Reads a TOML file: its tables may have only the known keys, each value has its type and range,
// and errors name their line. Pure functions, any thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Toml.h"
#include "Words.h"

// What is wrong, and in which line; line 0 means the whole text, and what() begins with a space.
struct TomlMistake : std::runtime_error {
    TomlMistake(const toml::node& at, const std::string& what)
        : std::runtime_error(what), line(at.source().begin.line) {}
    TomlMistake(toml::source_index where, const std::string& what)
        : std::runtime_error(what), line(where) {}
    // "NAME:LINE: what is wrong".
    std::string In(const std::string& name) const {
        return name + ":" + (line > 0 ? std::to_string(line) + ": " : "") + what();
    }
    toml::source_index line;
};

// Parses a text and calls `read` with its root table. Returns the mistake, nothing on success.
// `read` throws TomlMistake.
template <class Read>
std::optional<TomlMistake> ReadToml(std::string_view text, const std::string& name, Read read) {
    try {
        const toml::table root = ParseToml(text, name);
        read(root);
        return std::nullopt;
    } catch (const toml::parse_error& error) {
        return TomlMistake(error.source().begin.line, std::string(error.description()));
    } catch (const TomlMistake& mistake) {
        return mistake;
    } catch (const std::logic_error& error) {
        return TomlMistake(toml::source_index{0}, error.what());
    }
}

// Returns the values of one table. Every function throws TomlMistake for a value of the wrong type
// or range; those with `out` do not change it if the key is missing.
class TomlTable {
  public:
    TomlTable(const toml::table& table, const std::vector<std::string>& known) : m_table(table) {
        for (const auto& [key, node] : m_table) {
            const std::string word(key.str());
            if (std::find(known.begin(), known.end(), word) == known.end())
                throw TomlMistake(node, "unknown key '" + word + "'" + KnownWords(word, known));
        }
    }

    // Null: the key is missing.
    const toml::node* Find(std::string_view key) const { return m_table.get(key); }
    const toml::node& Need(const std::string& key) const {
        if (const toml::node* const node = Find(key)) return *node;
        throw TomlMistake(m_table, key + " is missing");
    }
    void Text(const std::string& key, std::string& out) const {
        if (const toml::node* const node = Find(key)) out = TextOf(*node, key);
    }
    template <class Number>
    void Integer(const std::string& key, Number& out, int64_t low, int64_t high) const {
        const toml::node* const node = Find(key);
        if (node) out = static_cast<Number>(IntegerOf(*node, key, low, high));
    }
    void Flag(const std::string& key, bool& out) const {
        const toml::node* const node = Find(key);
        if (!node) return;
        const auto value = node->value_exact<bool>();
        if (!value) throw TomlMistake(*node, key + " is true or false");
        out = *value;
    }
    void Version(const std::string& key, uint32_t& out) const {
        if (const toml::node* const node = Find(key)) out = VersionOf(*node, key);
    }

    static std::string TextOf(const toml::node& node, const std::string& key) {
        const auto value = node.value_exact<std::string>();
        if (!value) throw TomlMistake(node, key + " is a text in quotation marks");
        return *value;
    }
    static int64_t IntegerOf(const toml::node& node, const std::string& key, int64_t low,
                             int64_t high) {
        const auto value = node.value_exact<int64_t>();
        if (!value || *value < low || *value > high)
            throw TomlMistake(node, key + " is a whole number from " + std::to_string(low) +
                                        " to " + std::to_string(high));
        return *value;
    }
    // "1.2": major in the upper 16 bits, minor in the lower.
    static uint32_t VersionOf(const toml::node& node, const std::string& key) {
        const std::string text = TextOf(node, key);
        const size_t dot = std::min(text.find('.'), text.size());
        const std::optional<uint32_t> major = VersionPart(text.substr(0, dot));
        const std::optional<uint32_t> minor =
            VersionPart(text.substr(std::min(dot + 1, text.size())));
        if (!major || !minor)
            throw TomlMistake(node, key + " is \"major.minor\", both from 0 to 65535");
        return *major << 16 | *minor;
    }

  private:
    static std::optional<uint32_t> VersionPart(const std::string& digits) {
        if (digits.empty() || digits.size() > 5 ||
            digits.find_first_not_of("0123456789") != digits.npos || std::stoul(digits) > 0xFFFF)
            return std::nullopt;
        return static_cast<uint32_t>(std::stoul(digits));
    }

    const toml::table& m_table;
};

inline const toml::table& TomlTableOf(const toml::node& node, const std::string& key) {
    if (const toml::table* const table = node.as_table()) return *table;
    throw TomlMistake(node, key + " is a table");
}

// Calls `each` with every element of the list under `key`.
template <class Each>
void ForEachToml(const TomlTable& table, const std::string& key, Each each) {
    const toml::node* const node = table.Find(key);
    if (!node) return;
    const toml::array* const list = node->as_array();
    if (!list) throw TomlMistake(*node, key + " is a list");
    for (const toml::node& element : *list) each(element);
}
