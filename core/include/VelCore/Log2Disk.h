// Log2Disk.h: the framework's log target that writes the agent's log file.
#pragma once

#include <wx/log.h>

namespace VelCore {

/// Writes every record as one line to `<app.path.work>/log/<app.name>.log`; docs/CORE.md describes the file.
///
/// While the work folder is not known, or the file cannot be opened or written, records go to standard error. When
/// standard error is a terminal, they are shown there as well.
///
/// Threads: any; each record is appended by the thread that logs it, before the call returns. A thread other than the
///          main one has to make the target its own with wxLog::SetThreadActiveTarget (CRunnable does).
class CLog2Disk : public wxLog
{
protected:
    void DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo& info) override;
};

/// While one of these lives, records of its thread are not shown on a terminal: for a record whose text the program
/// writes to standard error itself.
class CTerminalQuiet
{
public:
    CTerminalQuiet();
    ~CTerminalQuiet();
    CTerminalQuiet(const CTerminalQuiet&) = delete;
    CTerminalQuiet& operator=(const CTerminalQuiet&) = delete;
};

} // namespace VelCore
