// Foreign bytes as the content of a pid file.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "process/PidText.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const int process = VelCore::ParsePid(text);
    if (process < 0)
        std::abort();
    if (process == 0)
        return 0;
    // What is taken for a number has no other characters in it, and reads the same again.
    const std::string digits = text.back() == '\n' ? text.substr(0, size - 1) : text;
    if (digits.find_first_not_of("0123456789") != std::string::npos || std::stoll(digits) != process)
        std::abort();
    return 0;
}
