// Foreign bytes as a configuration file.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <wx/debug.h>
#include <wx/fileconf.h>
#include <wx/init.h>
#include <wx/log.h>
#include <wx/mstream.h>

#include "cmdline/ConfigSettings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const wxInitializer initializer;
    static const bool b_Quiet = wxLog::EnableLogging(false);
    (void)b_Quiet;
    wxSetAssertHandler(nullptr); // the framework's parser reports some bad lines that way and goes on

    wxMemoryInputStream in(data, size);
    wxFileConfig config(in, wxConvAuto());
    const ConfigSettings settings = ReadConfigSettings(config, L"kx_agent", true);
    for (const SqliteEntry& entry : settings.sqlite) {
        if (!entry.name.StartsWith(L"sqlite.config"))
            std::abort();
    }
    return 0;
}
