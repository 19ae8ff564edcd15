#include <VelCore/Utf8.h>

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

using VelCore::FromUtf8;
using VelCore::ToUtf8;

namespace {

struct Encoding
{
    wchar_t point;
    const char* bytes;
};

// The first and last code point of each length, and the ones beside the gap.
const Encoding kEdges[] = {
    {0x1, "\x01"},
    {0x7F, "\x7F"},
    {0x80, "\xC2\x80"},
    {0x7FF, "\xDF\xBF"},
    {0x800, "\xE0\xA0\x80"},
    {0xD7FF, "\xED\x9F\xBF"},
    {0xE000, "\xEE\x80\x80"},
    {0xFFFD, "\xEF\xBF\xBD"},
    {0xFFFF, "\xEF\xBF\xBF"},
    {0x10000, "\xF0\x90\x80\x80"},
    {0x10FFFF, "\xF4\x8F\xBF\xBF"},
};

std::wstring Decoded(const std::string& bytes)
{
    return FromUtf8(bytes).ToStdWstring();
}

std::string Hex(const std::string& bytes)
{
    std::string text;
    char digits[8];
    for (const char byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02X ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        text += digits;
    }
    return text;
}

TEST(Utf8, FirstAndLastCodePointOfEachLength)
{
    for (const Encoding& edge : kEdges) {
        EXPECT_EQ(std::wstring(1, edge.point), Decoded(edge.bytes)) << Hex(edge.bytes);
        EXPECT_EQ(Hex(edge.bytes), Hex(ToUtf8(wxString(edge.point))));
    }
}

TEST(Utf8, EveryCodePointSurvivesTheRoundTrip)
{
    std::wstring all;
    for (wchar_t point = 0; point <= 0x10FFFF; ++point) {
        if (point < 0xD800 || point > 0xDFFF)
            all += point;
    }
    EXPECT_TRUE(all == Decoded(ToUtf8(wxString(all))));
}

TEST(Utf8, EmptyTextStaysEmpty)
{
    EXPECT_EQ(L"", Decoded(""));
    EXPECT_EQ("", ToUtf8(wxString()));
}

TEST(Utf8, NulBytesAreText)
{
    const std::string bytes("a\0b\0", 4);
    EXPECT_EQ(std::wstring(L"a\0b\0", 4), Decoded(bytes));
    EXPECT_EQ(bytes, ToUtf8(FromUtf8(bytes)));
}

TEST(Utf8, EveryPairOfBytesSurvivesTheRoundTrip)
{
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string bytes{static_cast<char>(first), static_cast<char>(second)};
            ASSERT_EQ(bytes, ToUtf8(FromUtf8(bytes))) << Hex(bytes);
        }
    }
}

TEST(Utf8, LongerSequencesSurviveTheRoundTripWhereverTheyBreak)
{
    const int edges[] = {0x00, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xFF};
    for (int lead = 0xC0; lead < 256; ++lead) {
        for (const int second : edges) {
            for (const int third : edges) {
                for (const int fourth : edges) {
                    const std::string bytes{static_cast<char>(lead), static_cast<char>(second),
                                            static_cast<char>(third), static_cast<char>(fourth)};
                    ASSERT_EQ(bytes, ToUtf8(FromUtf8(bytes))) << Hex(bytes);
                }
            }
        }
    }
}

struct Malformed
{
    const char* name;
    const char* bytes;
    const wchar_t* decoded;
};

TEST(Utf8, BytesThatAreNotUtf8BecomeEscapes)
{
    const Malformed cases[] = {
        {"lone continuation byte", "\x80", L"\xDC80"},
        {"last continuation byte", "\xBF", L"\xDCBF"},
        {"bytes that never occur", "\xFE\xFF", L"\xDCFE\xDCFF"},
        {"Latin-1 letter", "caf\xE9!", L"caf\xDCE9!"},
        {"overlong slash of two bytes", "\xC0\xAF", L"\xDCC0\xDCAF"},
        {"last overlong of two bytes", "\xC1\xBF", L"\xDCC1\xDCBF"},
        {"last overlong of three bytes", "\xE0\x9F\xBF", L"\xDCE0\xDC9F\xDCBF"},
        {"last overlong of four bytes", "\xF0\x8F\xBF\xBF", L"\xDCF0\xDC8F\xDCBF\xDCBF"},
        {"first surrogate", "\xED\xA0\x80", L"\xDCED\xDCA0\xDC80"},
        {"last surrogate", "\xED\xBF\xBF", L"\xDCED\xDCBF\xDCBF"},
        {"encoded escape", "\xED\xB2\x80", L"\xDCED\xDCB2\xDC80"},
        {"first beyond the last code point", "\xF4\x90\x80\x80", L"\xDCF4\xDC90\xDC80\xDC80"},
        {"five-byte form", "\xF8\x88\x80\x80\x80", L"\xDCF8\xDC88\xDC80\xDC80\xDC80"},
        {"cut off after one byte", "a\xC3", L"a\xDCC3"},
        {"cut off after two bytes", "\xE2\x82", L"\xDCE2\xDC82"},
        {"cut off after three bytes", "\xF0\x9F\x98", L"\xDCF0\xDC9F\xDC98"},
        {"cut off by a letter", "\xE2\x82z", L"\xDCE2\xDC82z"},
        {"cut off by a good sequence", "\xE2\xC3\xA9", L"\xDCE2\x00E9"},
    };
    for (const Malformed& malformed : cases) {
        EXPECT_EQ(std::wstring(malformed.decoded), Decoded(malformed.bytes)) << malformed.name;
        EXPECT_EQ(Hex(malformed.bytes), Hex(ToUtf8(FromUtf8(malformed.bytes)))) << malformed.name;
    }
}

TEST(Utf8, LoneEscapeIsEncodedAsItsByte)
{
    EXPECT_EQ("\x80", ToUtf8(wxString(wchar_t{0xDC80})));
    EXPECT_EQ("\xFF", ToUtf8(wxString(wchar_t{0xDCFF})));
}

TEST(Utf8, WhatCannotBeEncodedBecomesTheReplacementCharacter)
{
    for (const wchar_t point : {0xD800, 0xDBFF, 0xDC00, 0xDC7F, 0xDD00, 0xDFFF, 0x110000, 0x7FFFFFFF})
        EXPECT_EQ("a\xEF\xBF\xBD", ToUtf8(wxString(std::wstring{L'a', point}))) << std::hex << point;
}

} // namespace
