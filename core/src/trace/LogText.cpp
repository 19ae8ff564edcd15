// Text from outside as a record of the framework's log.
//
// Tested by: unit/core/trace/Log2DiskTest.cpp, blackbox/test_log.py.

#include "trace/LogText.h"

#include <VelCore/Clock.h>
#include <VelCore/Utf8.h>

namespace VelCore {
namespace {

bool IsEnabled(wxLogLevel level)
{
    return wxLog::IsLevelEnabled(level, wxASCII_STR(wxLOG_COMPONENT)) && (level != wxLOG_Info || wxLog::GetVerbose());
}

} // namespace

void LogText(wxLogLevel level, std::string_view text)
{
    if (!IsEnabled(level))
        return;
    wxString shown = FromUtf8(text);
    shown.Replace(wxString(L'\0', 1), L"\\x00"); // as the log shows it
    // There is nothing to format, and the framework's formatting of a long text crashes when memory is short.
    wxLogRecordInfo info(__FILE__, __LINE__, __func__, wxLOG_COMPONENT);
    // By the clock of the framework's own records: `time` lags behind it, by up to a tick of the kernel.
    info.timestampMS = TimeNowMillis();
    info.timestamp = info.timestampMS / 1000;
    wxLog::OnLog(level, shown, info);
}

} // namespace VelCore
