// Foreign bytes as text: every byte survives a round trip, and no record text holds a control character.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <VelCore/Utf8.h>

#include "trace/RecordText.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    if (VelCore::ToUtf8(VelCore::FromUtf8(bytes)) != bytes)
        std::abort();
    for (const char c : VelCore::EscapeControls(bytes)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F)
            std::abort();
    }
    return 0;
}
