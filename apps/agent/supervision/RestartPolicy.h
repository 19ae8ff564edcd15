// RestartPolicy.h: when may the watchdog start the next worker?
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// Remembers the last eight worker starts and judges the next one.
///
/// Eight starts within 512 seconds are the limit; the next one is refused. Below the limit each recent start doubles
/// the delay: 1, 2, 4 ... 64 seconds.
///
/// Units:     times in seconds since the epoch, as time() gives them; delays in milliseconds.
/// Ownership: a plain value.
/// Threads:   not synchronised; the watchdog, its only user, has one thread.
/// Source:    docs/PROCESSES.md, "Restarts".
class CRestartPolicy
{
public:
    static const int s_MaxStarts = 8;
    static const int s_WindowSeconds = 512;

    struct Verdict
    {
        bool allowed;     // false: the limit is reached
        int recentStarts; // 0 to 8: starts less than 512 seconds before
        int delayMs;      // wait this long before the start; 0 when none is recent
    };

    /// Judges a start at `now`; records nothing.
    Verdict Judge(std::int64_t now) const;

    /// Records a start. Pass the time that was judged, so that the delay ages the entries too.
    void RecordStart(std::int64_t now);

private:
    std::array<std::int64_t, s_MaxStarts> m_starts{}; // ring of start times
    std::size_t m_count = 0;                          // of starts ever recorded
};
