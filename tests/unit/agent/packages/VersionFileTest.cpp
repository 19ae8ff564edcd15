#include "packages/VersionFile.h"

#include <string>

#include <gtest/gtest.h>

#include <wx/mstream.h>

#include <VelCore/Utf8.h>

#include "support/Capture.h"

namespace {

// What stands behind "version:"; "-" when there is no such line.
std::string VersionLine(const std::string& content)
{
    wxMemoryInputStream in(content.data(), content.size());
    const auto line = FindVersionLine(in);
    return line ? VelCore::ToUtf8(*line) : "-";
}

TEST(VersionFile, TheVersionLineIsFoundWhateverEndsTheLines)
{
    for (const char* content :
         {"version: 11.0.0-1", "version: 11.0.0-1\n", "version: 11.0.0-1\r\n", "version: 11.0.0-1\r",
          "one\nversion: 11.0.0-1\ntwo", "one\r\ntwo\r\n\r\nversion: 11.0.0-1\r\nthree\r\n",
          "one\rversion: 11.0.0-1\rtwo", "\n\n\nversion: 11.0.0-1"})
        EXPECT_EQ(" 11.0.0-1", VersionLine(content)) << content;
}

TEST(VersionFile, OnlyTheFirstVersionLineCounts)
{
    EXPECT_EQ(" 10.0.0-1", VersionLine("version: 10.0.0-1\nversion: 11.0.0-1\n"));
    EXPECT_EQ("", VersionLine("version:\nversion: 11.0.0-1\n"));
}

TEST(VersionFile, WhatOnlyLooksLikeAVersionLineIsNone)
{
    for (const char* content :
         {"", "\n", "Version: 11.0.0-1", "VERSION: 11.0.0-1", " version: 11.0.0-1", "\tversion: 11.0.0-1",
          "version : 11.0.0-1", "version 11.0.0-1", "versio", "the version: 11.0.0-1", "version"})
        EXPECT_EQ("-", VersionLine(content)) << content;
}

TEST(VersionFile, AByteOrderMarkIsSkipped)
{
    EXPECT_EQ(" 11.0.0-1", VersionLine("\xEF\xBB\xBFversion: 11.0.0-1\n"));
}

TEST(VersionFile, LinesBeforeMayHoldForeignLetters)
{
    EXPECT_EQ(" 11.0.0-1", VersionLine("caf\xC3\xA9\nversion: 11.0.0-1\n"));
    EXPECT_EQ(" 11.0.0-1", VersionLine("caf\xE9\nversion: 11.0.0-1\n"));
    EXPECT_EQ(" 11.0.0-1", VersionLine(std::string(100000, 'x') + "\nversion: 11.0.0-1\n"));
}

std::string Version(const wxString& text)
{
    const auto version = ParseVersion(text);
    if (!version)
        return "-";
    return std::to_string(version->major) + " " + std::to_string(version->minor) + " " + std::to_string(version->patch);
}

struct Parsed
{
    const wchar_t* text;
    const char* numbers;
};

TEST(VersionFile, FourNumbersMakeAVersion)
{
    const Parsed cases[] = {
        {L" 11.0.0-2580", "11 0 0"},      {L"\t 11. 0.\t0- 1", "11 0 0"},
        {L"011.00.000-01", "11 0 0"},     {L"+11.-0.+0--5", "11 0 0"},
        {L"11.0.0-1 and more", "11 0 0"}, {L"11.0.0-1.2.3", "11 0 0"},
        {L"11.0.0-0x1F", "11 0 0"},       {L"2147483647.1.-2147483648-1", "2147483647 1 -2147483648"},
    };
    for (const Parsed& parsed : cases)
        EXPECT_EQ(parsed.numbers, Version(parsed.text)) << parsed.text;
}

TEST(VersionFile, AnythingElseIsMalformed)
{
    for (const wchar_t* text :
         {L"", L" ", L"11", L"11.0", L"11.0.0", L"11.0.0-", L"11.0.0 - 2580", L"11 .0.0-1", L"11.0 .0-1", L"11.0.0.1",
          L"11,0,0-1", L"v11.0.0-1", L"a.b.c-d", L"11.0.0-x", L"-.0.0-1", L"11..0-1"})
        EXPECT_EQ("-", Version(text)) << text;
}

TEST(VersionFile, NumbersThatDoNotFitAreMalformed)
{
    for (const wchar_t* text : {L"2147483648.0.0-1", L"4294967307.0.0-1", L"11.0.-2147483649-1",
                                L"18446744073709551627.0.0-1", L"99999999999999999999999.0.0-1"})
        EXPECT_EQ("-", Version(text)) << text;
}

TEST(VersionFile, TheBuildNumberMayBeAnyNumber)
{
    for (const wchar_t* text : {L"11.0.0-2147483648", L"11.0.0-20261122004419", L"11.0.0--9223372036854775809",
                                L"11.0.0-99999999999999999999999"})
        EXPECT_EQ("11 0 0", Version(text)) << text;
}

} // namespace
