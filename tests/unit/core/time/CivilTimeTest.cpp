#include "time/CivilTime.h"

#include <ctime>

#include <gtest/gtest.h>

using VelCore::CivilTime;
using VelCore::CivilTimeOf;
using VelCore::SecondsOf;

namespace {

TEST(CivilTime, Epoch)
{
    const CivilTime time = CivilTimeOf(0);
    EXPECT_EQ(1970, time.year);
    EXPECT_EQ(1, time.month);
    EXPECT_EQ(1, time.day);
    EXPECT_EQ(0, time.hour * 3600 + time.minute * 60 + time.second);
    EXPECT_EQ(0, SecondsOf(time));
}

TEST(CivilTime, SecondBeforeTheEpoch)
{
    const CivilTime time = CivilTimeOf(-1);
    EXPECT_EQ(1969, time.year);
    EXPECT_EQ(12, time.month);
    EXPECT_EQ(31, time.day);
    EXPECT_EQ(59, time.second);
}

TEST(CivilTime, AgreesWithTheCLibrary)
{
    // Steps that meet every time of day, and the leap years that are special.
    for (std::int64_t seconds = -3000000000; seconds < 8000000000; seconds += std::int64_t{86399} * 7 + 1) {
        const std::time_t when = seconds;
        std::tm wanted{};
        gmtime_r(&when, &wanted);
        const CivilTime time = CivilTimeOf(seconds);
        ASSERT_EQ(wanted.tm_year + 1900, time.year) << seconds;
        ASSERT_EQ(wanted.tm_mon + 1, time.month) << seconds;
        ASSERT_EQ(wanted.tm_mday, time.day) << seconds;
        ASSERT_EQ(wanted.tm_hour, time.hour) << seconds;
        ASSERT_EQ(wanted.tm_min, time.minute) << seconds;
        ASSERT_EQ(wanted.tm_sec, time.second) << seconds;
        ASSERT_EQ(seconds, SecondsOf(time));
    }
}

TEST(CivilTime, LeapDays)
{
    EXPECT_EQ(951782400, SecondsOf({2000, 2, 29, 0, 0, 0}));
    EXPECT_EQ(29, CivilTimeOf(951782400).day);
    EXPECT_EQ(SecondsOf({2100, 2, 28, 0, 0, 0}) + 86400, SecondsOf({2100, 3, 1, 0, 0, 0}));
}

} // namespace
