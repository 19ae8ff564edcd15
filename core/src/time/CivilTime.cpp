// Calendar arithmetic. Years begin with March here, so that the leap day is the last of its year.
//
// Tested by: unit/core/time/CivilTimeTest.cpp.

#include "time/CivilTime.h"

namespace VelCore {
namespace {

const std::int64_t kDaySeconds = 86400;
const std::int64_t kEraDays = 146097;  // of 400 years
const std::int64_t kEpochDay = 719468; // from 1 March of year 0 to 1 January 1970

std::int64_t FloorDivide(std::int64_t number, std::int64_t by)
{
    return number / by - (number % by < 0 ? 1 : 0);
}

// Days from 1 March to the first day of the month, of which March is number 0.
std::int64_t DaysBeforeMonth(std::int64_t month)
{
    return (153 * month + 2) / 5;
}

} // namespace

CivilTime CivilTimeOf(std::int64_t seconds)
{
    const std::int64_t days = FloorDivide(seconds, kDaySeconds);
    const std::int64_t inDay = seconds - days * kDaySeconds;

    const std::int64_t era = FloorDivide(days + kEpochDay, kEraDays);
    const std::int64_t inEra = days + kEpochDay - era * kEraDays;
    const std::int64_t yearOfEra = (inEra - inEra / 1460 + inEra / 36524 - inEra / 146096) / 365;
    const std::int64_t inYear = inEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t month = (5 * inYear + 2) / 153;

    CivilTime time = {};
    time.year = era * 400 + yearOfEra + (month >= 10 ? 1 : 0);
    time.month = static_cast<int>(month < 10 ? month + 3 : month - 9);
    time.day = static_cast<int>(inYear - DaysBeforeMonth(month) + 1);
    time.hour = static_cast<int>(inDay / 3600);
    time.minute = static_cast<int>(inDay / 60 % 60);
    time.second = static_cast<int>(inDay % 60);
    return time;
}

std::int64_t SecondsOf(const CivilTime& time)
{
    const std::int64_t year = time.month > 2 ? time.year : time.year - 1;
    const std::int64_t era = FloorDivide(year, 400);
    const std::int64_t yearOfEra = year - era * 400;
    const std::int64_t inYear = DaysBeforeMonth(time.month > 2 ? time.month - 3 : time.month + 9) + time.day - 1;
    const std::int64_t days = era * kEraDays + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + inYear - kEpochDay;
    return ((days * 24 + time.hour) * 60 + time.minute) * 60 + time.second;
}

} // namespace VelCore
