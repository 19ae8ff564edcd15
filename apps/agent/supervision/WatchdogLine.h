// WatchdogLine.h: how a worker learns that its watchdog is gone.
#pragma once

/// A pipe on which nothing is ever written. The watchdog holds the end for writing; when it dies, however that happens,
/// the system closes it, and the worker sees the end of the line.
///
/// Make it before the fork. Afterwards each side gives up the other's end.
class CWatchdogLine
{
public:
    /// Errors: a system-error record; the worker then has no line.
    CWatchdogLine();
    ~CWatchdogLine();
    CWatchdogLine(const CWatchdogLine&) = delete;
    CWatchdogLine& operator=(const CWatchdogLine&) = delete;

    /// In the watchdog.
    void CloseWorkersEnd();

    /// In the worker: the descriptor to watch, which is the caller's from now on; -1 when there is none.
    int TakeWorkersEnd();

private:
    static void CloseEnd(int& end);

    int m_worker = -1;
    int m_watchdog = -1;
};
