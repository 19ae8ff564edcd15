// Foreign bytes as the version file of an extension.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <wx/init.h>
#include <wx/log.h>
#include <wx/mstream.h>

#include "packages/VersionFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const wxInitializer initializer;
    static const bool b_Quiet = wxLog::EnableLogging(false);
    (void)b_Quiet;

    wxMemoryInputStream in(data, size);
    const auto line = FindVersionLine(in);
    if (!line)
        return 0;
    if (line->find_first_of(L"\n") != wxString::npos)
        std::abort();
    ParseVersion(*line);
    return 0;
}
