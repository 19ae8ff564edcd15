// The pipe between watchdog and worker.
//
// Tested by: blackbox/test_watchdog.py.

#include "supervision/WatchdogLine.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include <wx/log.h>

CWatchdogLine::CWatchdogLine()
{
    int ends[2];
    if (pipe(ends) != 0) {
        wxLogSysError(errno, L"Unable to make a line between watchdog and child");
        return;
    }
    // Programs that either side starts must not hold the line open.
    for (const int end : ends)
        fcntl(end, F_SETFD, FD_CLOEXEC);
    m_worker = ends[0];
    m_watchdog = ends[1];
}

CWatchdogLine::~CWatchdogLine()
{
    CloseEnd(m_worker);
    CloseEnd(m_watchdog);
}

void CWatchdogLine::CloseWorkersEnd()
{
    CloseEnd(m_worker);
}

int CWatchdogLine::TakeWorkersEnd()
{
    CloseEnd(m_watchdog);
    const int end = m_worker;
    m_worker = -1;
    return end;
}

void CWatchdogLine::CloseEnd(int& end)
{
    if (end >= 0)
        close(end);
    end = -1;
}
