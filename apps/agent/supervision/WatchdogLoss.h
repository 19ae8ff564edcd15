// WatchdogLoss.h: the end of a worker whose watchdog is gone.
#pragma once

#include <memory>

#include <wx/evtloopsrc.h>
#include <wx/timer.h>

/// Waits in the event loop for the end of the line to the watchdog. Then the worker stops in order, as if it had got
/// SIGTERM; if it is still there 15 seconds later, in whatever phase, it ends at once with status 1. Nobody would
/// notice its end, and it must not live on beside the agent that is started next.
///
/// Threads: the main thread's.
class CWatchdogLoss : public wxEventLoopSourceHandler, private wxTimer
{
public:
    CWatchdogLoss();
    ~CWatchdogLoss() override;

    /// line  the worker's end of a CWatchdogLine; -1 when there is no watchdog
    ///
    /// Ownership: takes over the descriptor.
    void Watch(int line);

    void OnReadWaiting() override;
    void OnWriteWaiting() override {}
    void OnExceptionWaiting() override { OnReadWaiting(); }

private:
    void Notify() override;

    int m_line = -1;
    std::unique_ptr<wxEventLoopSource> m_source;
};
