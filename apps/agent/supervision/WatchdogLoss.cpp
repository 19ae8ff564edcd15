// Noticing the loss of the watchdog, and what follows.
//
// Tested by: blackbox/test_watchdog.py.

#include "supervision/WatchdogLoss.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include <wx/evtloop.h>
#include <wx/log.h>

namespace {

const int kPatienceMs = 15000;

} // namespace

CWatchdogLoss::CWatchdogLoss() = default;

CWatchdogLoss::~CWatchdogLoss()
{
    m_source.reset();
    if (m_line >= 0)
        close(m_line);
}

void CWatchdogLoss::Watch(int line)
{
    if (line < 0)
        return;
    m_line = line;
    fcntl(line, F_SETFL, O_NONBLOCK);
    m_source.reset(wxEventLoopBase::AddSourceForFD(line, this, wxEVENT_SOURCE_INPUT | wxEVENT_SOURCE_EXCEPTION));
    if (!m_source)
        wxLogError(L"Unable to watch the line to the watchdog");
}

void CWatchdogLoss::OnReadWaiting()
{
    char byte = 0;
    const ssize_t length = read(m_line, &byte, 1);
    if (length > 0 || (length < 0 && (errno == EAGAIN || errno == EINTR)))
        return;
    m_source.reset();
    wxLogWarning(L"The watchdog is gone, stopping");
    StartOnce(kPatienceMs);
    // Blocked in every thread; the script thread waits for it.
    kill(getpid(), SIGTERM);
}

void CWatchdogLoss::Notify()
{
    wxLogError(L"Not stopped %d seconds after the watchdog's end, exiting at once", kPatienceMs / 1000);
    _exit(EXIT_FAILURE);
}
