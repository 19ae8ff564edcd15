#include <VelCore/Dom.h>

#include <clocale>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>

#include <gtest/gtest.h>

using VelCore::CDomValue;
using VelCore::DomValueIsTrue;
using VelCore::DomValueText;

namespace {

CDomValue Text(const char* text)
{
    return CDomValue(std::string(text));
}

TEST(DomValue, TextOfBooleans)
{
    EXPECT_EQ("true", DomValueText(CDomValue(true)));
    EXPECT_EQ("false", DomValueText(CDomValue(false)));
}

TEST(DomValue, TextOfIntegersIsDecimalOverTheWholeRange)
{
    EXPECT_EQ("0", DomValueText(CDomValue(std::int64_t{0})));
    EXPECT_EQ("-1", DomValueText(CDomValue(std::int64_t{-1})));
    EXPECT_EQ("9223372036854775807", DomValueText(CDomValue(std::numeric_limits<std::int64_t>::max())));
    EXPECT_EQ("-9223372036854775808", DomValueText(CDomValue(std::numeric_limits<std::int64_t>::min())));
}

TEST(DomValue, TextOfDoublesHasFourteenSignificantDigits)
{
    const double values[] = {0.0,
                             -0.0,
                             0.5,
                             -2.25,
                             1.0 / 3,
                             1e14,
                             123456789012345.0,
                             1e15,
                             1e100,
                             1e-5,
                             0.0001,
                             5e-324,
                             1.7976931348623157e308,
                             100000,
                             99999999999999.5};
    for (const double value : values) {
        char expected[64];
        std::snprintf(expected, sizeof expected, "%.14g", value);
        EXPECT_EQ(expected, DomValueText(CDomValue(value)));
    }
    EXPECT_EQ("inf", DomValueText(CDomValue(std::numeric_limits<double>::infinity())));
    EXPECT_EQ("-inf", DomValueText(CDomValue(-std::numeric_limits<double>::infinity())));
}

TEST(DomValue, TextOfDoublesHasAPointInEveryLocale)
{
    const std::string before = std::setlocale(LC_NUMERIC, nullptr);
    std::setlocale(LC_NUMERIC, "de_DE.UTF-8"); // where it is not installed, the point is there anyway
    const std::string text = DomValueText(CDomValue(1.5));
    std::setlocale(LC_NUMERIC, before.c_str());
    EXPECT_EQ("1.5", text);
}

TEST(DomValue, TextOfStringsIsTheirBytes)
{
    const std::string bytes("a\0\xFF", 3);
    EXPECT_EQ(bytes, DomValueText(CDomValue(bytes)));
    EXPECT_EQ("", DomValueText(Text("")));
}

TEST(DomValue, NumbersOtherThanZeroAreTrue)
{
    EXPECT_TRUE(DomValueIsTrue(CDomValue(true)));
    EXPECT_FALSE(DomValueIsTrue(CDomValue(false)));
    EXPECT_TRUE(DomValueIsTrue(CDomValue(std::int64_t{1})));
    EXPECT_TRUE(DomValueIsTrue(CDomValue(std::int64_t{-7})));
    EXPECT_TRUE(DomValueIsTrue(CDomValue(std::numeric_limits<std::int64_t>::min())));
    EXPECT_FALSE(DomValueIsTrue(CDomValue(std::int64_t{0})));
    EXPECT_TRUE(DomValueIsTrue(CDomValue(0.1)));
    EXPECT_TRUE(DomValueIsTrue(CDomValue(-5e-324)));
    EXPECT_FALSE(DomValueIsTrue(CDomValue(0.0)));
    EXPECT_FALSE(DomValueIsTrue(CDomValue(-0.0)));
}

TEST(DomValue, FourWordsAreTrueInAnyCase)
{
    for (const char* word : {"true", "TRUE", "True", "yes", "YES", "yEs", "on", "ON", "oN", "1"})
        EXPECT_TRUE(DomValueIsTrue(Text(word))) << word;
}

TEST(DomValue, EveryOtherStringIsFalse)
{
    for (const char* word : {"", "0", "false", "no", "off", "2", "01", "1.0", "-1", "true ", " true", "y", "t", "yess"})
        EXPECT_FALSE(DomValueIsTrue(Text(word))) << word;
    EXPECT_FALSE(DomValueIsTrue(CDomValue(std::string("true\0", 5))));
    EXPECT_FALSE(DomValueIsTrue(CDomValue(std::string("1\0", 2))));
}

} // namespace
