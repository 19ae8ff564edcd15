// CivilTime.h: calendar dates without the C library's locks.
#pragma once

#include <cstdint>

namespace VelCore {

struct CivilTime
{
    std::int64_t year;
    int month; // 1 to 12
    int day;   // 1 to 31
    int hour;
    int minute;
    int second;
};

/// The date and time in UTC of a number of seconds since the epoch.
///
/// Source: the Gregorian calendar repeats itself every 400 years, which are 146097 days.
CivilTime CivilTimeOf(std::int64_t seconds);

/// The number of seconds since the epoch of a date and time in UTC.
std::int64_t SecondsOf(const CivilTime& time);

} // namespace VelCore
