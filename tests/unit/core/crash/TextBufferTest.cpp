#include "crash/TextBuffer.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

using VelCore::CTextBuffer;

namespace {

// What `add` leaves in a buffer of this size.
template <typename Add>
std::string Text(Add add, std::size_t size = 256)
{
    std::string memory(size, '#');
    CTextBuffer text(memory.data(), size);
    add(text);
    return std::string(text.Text());
}

std::string Escaped(std::string_view plain)
{
    return Text([plain](CTextBuffer& text) { text.AddEscaped(plain); });
}

TEST(TextBuffer, BeginsEmpty)
{
    EXPECT_EQ("", Text([](CTextBuffer&) {}));
}

TEST(TextBuffer, TextsFollowEachOther)
{
    EXPECT_EQ("ab", Text([](CTextBuffer& text) { text.Add("a").Add("").Add("b"); }));
}

TEST(TextBuffer, WhatFitsExactlyIsWhole)
{
    EXPECT_EQ("abc", Text([](CTextBuffer& text) { text.Add("abc"); }, 3));
}

TEST(TextBuffer, NothingFollowsWhatWasCut)
{
    EXPECT_EQ("abc", Text([](CTextBuffer& text) { text.Add("ab").Add("cd").Add("e"); }, 3));
    EXPECT_EQ("", Text([](CTextBuffer& text) { text.Add("a"); }, 0));
}

TEST(TextBuffer, NumbersAreDecimal)
{
    const std::pair<std::int64_t, const char*> cases[] = {
        {0, "0"},
        {7, "7"},
        {10, "10"},
        {-1, "-1"},
        {std::numeric_limits<std::int64_t>::max(), "9223372036854775807"},
        {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
    };
    for (const auto& row : cases)
        EXPECT_EQ(row.second, Text([&row](CTextBuffer& text) { text.AddNumber(row.first); }));
}

TEST(TextBuffer, PaddedNumbersHaveZerosInFront)
{
    const struct
    {
        std::int64_t number;
        int digits;
        const char* text;
    } cases[] = {{0, 2, "00"},      {7, 2, "07"},    {10, 2, "10"}, {123, 2, "123"},
                 {2026, 4, "2026"}, {33, 4, "0033"}, {5, 1, "5"}};
    for (const auto& row : cases)
        EXPECT_EQ(row.text, Text([&row](CTextBuffer& text) { text.AddPadded(row.number, row.digits); }));
}

TEST(TextBuffer, AddressesAreHexadecimal)
{
    EXPECT_EQ("0x0", Text([](CTextBuffer& text) { text.AddHex(0); }));
    EXPECT_EQ("0xdead10", Text([](CTextBuffer& text) { text.AddHex(0xDEAD10); }));
    EXPECT_EQ("0xffffffffffffffff", Text([](CTextBuffer& text) { text.AddHex(~std::uint64_t{0}); }));
}

TEST(TextBuffer, ControlsAreEscaped)
{
    EXPECT_EQ("a\\n\\r\\t\\x00\\x1b\\x7fb", Escaped(std::string_view("a\n\r\t\0\x1b\x7f"
                                                                     "b",
                                                                     8)));
    EXPECT_EQ("\\xc2\\x85", Escaped("\u0085")); // a control of the second set
    EXPECT_EQ("\\xe2\\x80\\xa8\\xe2\\x80\\xa9", Escaped("\u2028\u2029"));
}

TEST(TextBuffer, OtherCharactersStay)
{
    EXPECT_EQ(" ~'\\\u00a0\u00e9\u20ac\U0001F600", Escaped(" ~'\\\u00a0\u00e9\u20ac\U0001F600"));
}

TEST(TextBuffer, BytesThatAreNotUtf8AreEscaped)
{
    EXPECT_EQ("\\x80", Escaped("\x80"));
    EXPECT_EQ("\\xc0\\x80", Escaped("\xc0\x80"));
    EXPECT_EQ("\\xff", Escaped("\xff"));
    EXPECT_EQ("\\xe2\\x82", Escaped("\xe2\x82")); // cut short
    EXPECT_EQ("\\xe2a", Escaped("\xe2"
                                "a"));
}

} // namespace
