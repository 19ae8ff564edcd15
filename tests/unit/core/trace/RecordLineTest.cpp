#include "trace/RecordLine.h"

#include <limits>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

#include "trace/RecordText.h"

using VelCore::CRecordLine;
using VelCore::EscapeControls;
using VelCore::FromUtf8;

namespace {

const std::size_t kLengths[] = {0, 1, 7, 8, 9, 15, 16, 17, 255, 256, 257, 1000, 100000};

// What a text holds that cannot stand as it is, or that several bytes stand for.
const std::string_view kSpecial[] = {
    "", "\n", "\x1f", "\x7f", "\x80", "\xff", "\xC3\xA9", "\xE2\x80\xA8", "\xF0\x9F\x98\x80"};

TEST(RecordLine, PartsStandInTheirOrder)
{
    CRecordLine line;
    EXPECT_EQ("", line.Text());
    line.Add("head: ").AddEscaped(std::string_view("a\nb")).Add(" ").AddEscaped(wxString(L"c\td")).Add(":").Add(42L);
    EXPECT_EQ("head: a\\nb c\\td:42", line.Text());
}

TEST(RecordLine, WhatTheProgramSaysIsNotEscaped)
{
    CRecordLine line;
    EXPECT_EQ("a\n", line.Add("a\n").Text());
}

TEST(RecordLine, NumbersOfEverySizeFit)
{
    for (const long number : {std::numeric_limits<long>::min(), -1L, 0L, 7L, std::numeric_limits<long>::max()}) {
        CRecordLine line;
        EXPECT_EQ(std::to_string(number), line.Add(number).Text());
    }
}

// Texts are copied in blocks, so what is special is looked for at each place of one.
TEST(RecordLine, NothingSpecialIsPassedOver)
{
    CRecordLine line;
    for (const std::string_view special : kSpecial) {
        for (std::size_t size = 0; size < 40; ++size) {
            for (std::size_t place = 0; place <= size; ++place) {
                const std::string text = std::string(place, 'x').append(special).append(size - place, 'x');
                line.Clear();
                ASSERT_EQ(EscapeControls(text), line.AddEscaped(std::string_view(text)).Text()) << size << " " << place;
                line.Clear();
                ASSERT_EQ(EscapeControls(text), line.AddEscaped(FromUtf8(text)).Text()) << size << " " << place;
            }
        }
    }
}

TEST(RecordLine, TextsOfEveryLengthAreWhole)
{
    for (const std::string_view special : kSpecial) {
        for (const std::size_t length : kLengths) {
            const std::string text = std::string(length, 'x').append(special).append("behind");
            CRecordLine line;
            line.Add("before ").AddEscaped(std::string_view(text)).AddEscaped(FromUtf8(text));
            EXPECT_EQ("before " + EscapeControls(text) + EscapeControls(text), line.Text()) << length;
        }
    }
}

TEST(RecordLine, NextRecordBeginsAnew)
{
    CRecordLine line;
    for (const std::size_t length : {10U, 100000U, 20U, 0U}) {
        line.Clear();
        EXPECT_EQ(std::string(length, 'x'), line.Add(std::string(length, 'x')).Text());
    }
}

} // namespace
