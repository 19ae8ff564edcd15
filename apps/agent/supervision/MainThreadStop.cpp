// The halt of the main thread.
//
// Tested by: blackbox/test_exit_status.py.

#include "supervision/MainThreadStop.h"

#include <unistd.h>

#include <wx/event.h>

CMainThreadStop& CMainThreadStop::Get()
{
    static CMainThreadStop& stop = *new CMainThreadStop;
    return stop;
}

void CMainThreadStop::StopEventLoop(wxEvtHandler& application)
{
    application.CallAfter([this] { StandStill(); });
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_standing; });
}

void CMainThreadStop::MarkStanding()
{
    const std::lock_guard lock(m_mutex);
    m_standing = true;
    m_changed.notify_all();
}

void CMainThreadStop::StandStill()
{
    MarkStanding();
    for (;;)
        pause(); // signals are still answered here
}
