// Foreign bytes as a crash dump.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "CrashDump.h"
#include "CrashReport.h"
#include "StackGuess.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string error;
    const auto dump = ReadCrashDump({reinterpret_cast<const char*>(data), size}, error);
    if (!dump) {
        if (error.empty())
            std::abort();
        return 0;
    }
    const std::string report = CrashReport(*dump, {[&dump](const DumpedThread& thread) {
                                                       return StackTrace{GuessFrames(*dump, thread), true, false};
                                                   },
                                                   [](const DumpedModule& module) { return module.size % 2 == 0; }});
    // Nothing in a dump moves a reader's cursor.
    for (const char byte : report) {
        if (static_cast<unsigned char>(byte) < 0x20 && byte != '\n')
            std::abort();
    }
    return 0;
}
