// MainThreadStop.h: ending the process from the script thread.
#pragma once

#include <condition_variable>
#include <mutex>

class wxEvtHandler;

/// Brings the main thread to a halt in a known place, so that another thread can end the process by `exit`: static
/// destructors must not take away what an event loop still uses.
///
/// Ownership: one for the process, never destroyed.
class CMainThreadStop
{
public:
    static CMainThreadStop& Get();

    /// Asks the event loop of `application` to stand still for ever, and waits until it does. The request is kept when
    /// the loop does not run yet. Call it from the thread that is about to end the process.
    void StopEventLoop(wxEvtHandler& application);

    /// The main thread has left its event loop for good and touches nothing that `exit` destroys.
    void MarkStanding();

private:
    CMainThreadStop() = default;
    [[noreturn]] void StandStill();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_standing = false;
};
