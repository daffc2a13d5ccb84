// Text for a terminal: what is readable stays, all else is digits.
#include "Escape.h"

#include <gtest/gtest.h>

namespace qvtest {
namespace {

TEST(EscapeTest, ReadableTextStaysAsItIs) {
    for (const char* text : {"", "a b\\\"'~", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"})
        EXPECT_EQ(text, qvf::Escaped(text));
}

TEST(EscapeTest, WhatSteersATerminalIsDigits) {
    const struct {
        std::string text;
        const char* escaped;
    } kRows[] = {
        {"\x1B[2J", "\\x1b[2J"},
        {"a\nb\x7F", "a\\x0ab\\x7f"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\xC2\x9B", "\\xc2\\x9b"},             // control sequence introducer
        {"\xE2\x80\xAEx", "\\xe2\\x80\\xaex"},  // right to left from here
        {"\xEF\xBB\xBF", "\\xef\\xbb\\xbf"},    // without a width
        {"\xE2\x81\xA6", "\\xe2\\x81\\xa6"},    // isolates
    };
    for (const auto& row : kRows) EXPECT_EQ(row.escaped, qvf::Escaped(row.text));
}

TEST(EscapeTest, WhatIsNoUtf8IsDigits) {
    const struct {
        const char* text;
        const char* escaped;
    } kRows[] = {
        {"\xFF", "\\xff"},
        {"\xC0\x80", "\\xc0\\x80"},                    // longer than it must be
        {"\xE0\x80\xAF", "\\xe0\\x80\\xaf"},           // the same
        {"\xED\xA0\x80", "\\xed\\xa0\\x80"},           // half a pair
        {"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // behind the last character
        {"\xE2\x82", "\\xe2\\x82"},                    // cut short
        {"\xE2(\xA1", "\\xe2(\\xa1"},                  // interrupted
        {"\xC3\xA4\x80", "\xC3\xA4\\x80"},
    };
    for (const auto& row : kRows) EXPECT_EQ(row.escaped, qvf::Escaped(row.text));
}

}  // namespace
}  // namespace qvtest
