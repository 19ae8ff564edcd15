// TemporaryName.h: what are unfinished files called?
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace VelCore {

/// The name of the unfinished file with this number: always equally long, so that a file whose own name is as long as
/// names can be has room for it, and never a name that anything else would have.
///
/// Shape: ".vel-unfinished-" and 16 digits of the number in lower-case hexadecimal.
std::string TemporaryName(std::uint64_t number);

/// Whether `TemporaryName` makes this name of some number.
bool IsTemporaryName(std::string_view name);

} // namespace VelCore
