// LogLock.h: whose turn it is among the processes that share a log file.
#pragma once

#include <chrono>
#include <cstdint>

#include <sys/types.h>

namespace VelCore {

/// Locks the file against the other processes that append to it. Whoever was stopped while he held the lock does not
/// stop the others for long: after about `attempts` times a tenth of a millisecond this returns all the same.
/// Result: whether it is locked.
bool LockLog(int file, int attempts);

void UnlockLog(int file);

/// A tenth of a millisecond, between two attempts.
void PauseForLog();

/// The right of one process to append without locking, and so without asking the system about anything else.
///
/// A process that has been the only writer for a while and is busy writing takes it with one of its records, which it
/// writes under the lock, for the records of the next moment. Another process that comes to write sees that somebody
/// has this right, and takes its turn, with the file locked, no sooner than the right has run out. The next record
/// that comes behind that moment is written under the lock again, so its writer notices the other one.
///
/// Threads: one at a time. A forked child has not the right of its parent.
class CLogLease
{
public:
    using Clock = std::chrono::system_clock; // of the records and of the times of files, too

    /// Whether records may be appended as they come, by a clock that was read a moment ago.
    bool IsValid(Clock::time_point now) const;

    /// Call it with each record that is written under the lock, before that is released. Takes the right, renews it or
    /// gives it up.
    void Look(int file);

    /// Call it ahead of that when somebody else has written last; `when` is the time of the file's last change.
    void NoteOthers(const struct timespec& when);

    /// Whether another process has the right, or had it and is perhaps late with a record.
    static bool IsOthers(int file);

    /// Waits, with the file locked, until no other process can have the right.
    static void AwaitOthers(int file);

    /// The next record looks at the file again.
    void Expire() { m_until = {}; }

    /// Whether a parent process has used this last.
    bool IsInherited() const;

    /// The file was closed, and with that the right is gone. It is taken soon again if the next file is new.
    void Drop() { m_isHeld = false; }

    /// The next file is another one. If it has records, NoteOthers() tells how old they are.
    void StartAnew();

private:
    void GiveUp(int file);

    pid_t m_process = 0;         // that the rest is about
    bool m_isHeld = false;       // others see that this process may have the right
    Clock::time_point m_since{}; // may append from then: a clock that is set back does not prolong the right by more
    Clock::time_point m_until{}; // and until then
    Clock::time_point m_lastLook{};
    std::int64_t m_busyLooks = 0;      // in a row, each soon after the one before
    Clock::time_point m_othersWrote{}; // never, as far as is known
};

} // namespace VelCore
