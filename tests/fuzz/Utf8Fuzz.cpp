// Foreign bytes as text: every byte survives a round trip, no record text holds a control character, and a record shows
// them so however they come.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <VelCore/Utf8.h>

#include "trace/RecordLine.h"
#include "trace/RecordText.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    if (VelCore::ToUtf8(VelCore::FromUtf8(bytes)) != bytes)
        std::abort();
    const std::string shown = VelCore::EscapeControls(bytes);
    for (const char c : shown) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F)
            std::abort();
    }
    VelCore::CRecordLine narrow;
    VelCore::CRecordLine wide;
    if (narrow.AddEscaped(std::string_view(bytes)).Text() != shown)
        std::abort();
    if (wide.AddEscaped(VelCore::FromUtf8(bytes)).Text() != shown)
        std::abort();
    return 0;
}
