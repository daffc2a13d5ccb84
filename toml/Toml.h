// The TOML parser, with what it takes for granted checked.
//
// Of some texts, "[[" without a name behind it for one, it assumes what it has not looked at: an
// abort with assertions, undefined without. Here each such assumption that does not hold throws
// std::logic_error in every build; its text is what stands behind "FILE:". Characters beyond ASCII
// are refused: it takes some of them for impossible. Pure functions, any thread.
#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>

constexpr void TomlMustHold(bool holds) {
    if (!holds) throw std::logic_error(" this is not TOML");
}

#pragma push_macro("NDEBUG")
#undef NDEBUG
#define TOML_ASSERT(condition) TomlMustHold(!!(condition))
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")

inline toml::table ParseToml(std::string_view text, const std::string& name) {
    const auto isPlain = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    const auto found = std::find_if_not(text.begin(), text.end(), isPlain);
    if (found != text.end())
        throw std::logic_error(std::to_string(1 + std::count(text.begin(), found, '\n')) +
                               ": only ASCII characters are understood");
    return toml::parse(text, name);
}
