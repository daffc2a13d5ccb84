// The TOML parser, with checks of what it assumes.
//
// For some texts, for example "[[" without a name after it, the parser relies on assumptions that
// it has not checked: it aborts in a build with assertions, and its behaviour is undefined without.
// Here each failed assumption throws std::logic_error in every build; its message is the text after
// "FILE:". Characters beyond ASCII are refused, because the parser considers some of them
// impossible; those in comments are replaced. Pure functions, any thread.
#pragma once

#include <algorithm>
#include <cstddef>
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

// The position after the quoted text that begins at `at`; the end of the text when the quote is not
// closed.
inline size_t TomlTextEnd(std::string_view text, size_t at) {
    const char mark = text[at];
    const std::string_view three = mark == '"' ? "\"\"\"" : "'''";
    const bool isLong = text.substr(at, 3) == three;
    const std::string_view end = isLong ? three : text.substr(at, 1);
    for (at += end.size(); at < text.size(); ++at) {
        if (text[at] == '\n' && !isLong) return at;  // not closed: the parser will say so
        if (text[at] == '\\' && mark == '"') {
            ++at;
            continue;
        }
        if (text.substr(at, end.size()) != end) continue;
        at += end.size();
        // A multi-line text may itself end in one or two quotation marks.
        for (int i = 0; isLong && i < 2 && at < text.size() && text[at] == mark; ++i) ++at;
        return at;
    }
    return text.size();
}

// The same text with a question mark for each byte beyond ASCII in a comment.
inline std::string WithPlainComments(std::string_view text) {
    std::string plain(text);
    for (size_t at = 0; at < text.size();) {
        if (text[at] == '"' || text[at] == '\'') {
            at = TomlTextEnd(text, at);
            continue;
        }
        const size_t end = text[at] == '#' ? std::min(text.find('\n', at), text.size()) : at + 1;
        if (text[at] == '#')
            std::replace_if(
                plain.begin() + static_cast<std::ptrdiff_t>(at),
                plain.begin() + static_cast<std::ptrdiff_t>(end),
                [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
        at = end;
    }
    return plain;
}

inline toml::table ParseToml(std::string_view original, const std::string& name) {
    const std::string text = WithPlainComments(original);
    const auto isPlain = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    const auto found = std::find_if_not(text.begin(), text.end(), isPlain);
    if (found != text.end())
        throw std::logic_error(std::to_string(1 + std::count(text.begin(), found, '\n')) +
                               ": only ASCII characters are allowed outside of comments");
    return toml::parse(text, name);
}
