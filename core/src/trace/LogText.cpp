// Text from outside as a record of the framework's log.
//
// Tested by: unit/core/trace/Log2DiskTest.cpp, blackbox/test_log.py.

#include "trace/LogText.h"

#include <VelCore/Utf8.h>

namespace VelCore {

void LogText(wxLogLevel level, std::string_view text)
{
    wxString shown = FromUtf8(text);
    shown.Replace(wxString(L'\0', 1), L"\\x00"); // as the log shows it
    if (level == wxLOG_Info)
        wxLogVerbose(L"%s", shown);
    else
        wxLogGeneric(level, L"%s", shown);
}

} // namespace VelCore
