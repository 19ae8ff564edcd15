// Tested by: unit/core/archive/TemporaryNameTest.cpp.

#include "archive/TemporaryName.h"

#include <cstddef>

namespace VelCore {

namespace {

const std::string_view kPrefix = ".vel-unfinished-";
const std::string_view kDigits = "0123456789abcdef";
const std::size_t kDigitCount = 16; // of 64 bits

} // namespace

std::string TemporaryName(std::uint64_t number)
{
    std::string name(kPrefix);
    for (std::size_t digit = kDigitCount; digit > 0; --digit)
        name += kDigits[number >> 4 * (digit - 1) & 15];
    return name;
}

bool IsTemporaryName(std::string_view name)
{
    return name.size() == kPrefix.size() + kDigitCount && name.substr(0, kPrefix.size()) == kPrefix &&
           name.find_first_not_of(kDigits, kPrefix.size()) == std::string_view::npos;
}

} // namespace VelCore
