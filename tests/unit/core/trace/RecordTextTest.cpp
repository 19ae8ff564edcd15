#include "trace/RecordText.h"

#include <string>

#include <gtest/gtest.h>

using VelCore::EscapeControls;
using VelCore::LogFileStem;

namespace {

struct Escaped
{
    const char* name;
    std::string text;
    const char* shown;
};

TEST(RecordText, ControlCharactersAreShownAsEscapes)
{
    const Escaped cases[] = {
        {"nothing", "", ""},
        {"plain", "plain text ~!", "plain text ~!"},
        {"line feed", "a\nb", "a\\nb"},
        {"carriage return", "a\r", "a\\r"},
        {"tabulator", "\ta", "\\ta"},
        {"escape sequence", "\x1b[2J", "\\x1b[2J"},
        {"nul", std::string("a\0b", 3), "a\\x00b"},
        {"last below blank", "\x1f", "\\x1f"},
        {"delete", "\x7f", "\\x7f"},
        {"next line", "\xC2\x85", "\\x85"},
        {"one-character escape sequence",
         "\xC2\x9B"
         "31m",
         "\\x9b31m"},
        {"last control", "\xC2\x9F", "\\x9f"},
        {"first behind the controls", "\xC2\xA0", "\xC2\xA0"},
        {"line separator", "a\xE2\x80\xA8", "a\\u2028"},
        {"paragraph separator", "a\xE2\x80\xA9", "a\\u2029"},
        {"beside the separators", "\xE2\x80\xA7\xE2\x80\xAA", "\xE2\x80\xA7\xE2\x80\xAA"},
        {"letters", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"not UTF-8", "caf\xE9!", "caf\\xe9!"},
        {"raw control byte", "\x85", "\\x85"},
        {"cut off", "\xE2\x82", "\\xe2\\x82"},
        {"control behind a letter", "\xC3\xA9\n\xC3\xA9", "\xC3\xA9\\n\xC3\xA9"},
    };
    for (const Escaped& escaped : cases)
        EXPECT_EQ(escaped.shown, EscapeControls(escaped.text)) << escaped.name;
}

TEST(RecordText, NothingThatEndsALineOrIsNoTextGetsThrough)
{
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string shown = EscapeControls(std::string{static_cast<char>(first), static_cast<char>(second)});
            for (const char c : shown) {
                const auto byte = static_cast<unsigned char>(c);
                ASSERT_TRUE(byte >= 0x20 && byte != 0x7F) << first << " " << second;
            }
        }
    }
}

TEST(RecordText, TextCannotForgeARecord)
{
    EXPECT_EQ("a\\n2026-11-20 12:34:56 [1] Message: b", EscapeControls("a\n2026-11-20 12:34:56 [1] Message: b"));
}

TEST(RecordText, FileNameKeepsTheApplicationNameOutOfOtherFolders)
{
    EXPECT_EQ("kx_agent", LogFileStem("kx_agent"));
    EXPECT_EQ("a.b c", LogFileStem("a.b c"));
    EXPECT_EQ(".._.._etc_x", LogFileStem("../../etc/x"));
    EXPECT_EQ("a_b_", LogFileStem("a\nb\x7f"));
    EXPECT_EQ("caf\xC3\xA9", LogFileStem("caf\xC3\xA9"));
    EXPECT_EQ("", LogFileStem(""));
}

} // namespace
