// The restart limit and the growing delay.
//
// Tested by: unit/agent/supervision/RestartPolicyTest.cpp.

#include "supervision/RestartPolicy.h"

#include <algorithm>

CRestartPolicy::Verdict CRestartPolicy::Judge(std::int64_t now) const
{
    const std::int64_t threshold = now - s_WindowSeconds;
    // What was never recorded does not count, whatever the clock says.
    const auto end = m_starts.begin() + static_cast<std::ptrdiff_t>(std::min(m_count, m_starts.size()));
    const auto recent = static_cast<int>(
        std::count_if(m_starts.begin(), end, [threshold](std::int64_t start) { return start > threshold; }));

    if (recent == s_MaxStarts)
        return {false, recent, 0};
    return {true, recent, recent == 0 ? 0 : 1000 << (recent - 1)};
}

void CRestartPolicy::RecordStart(std::int64_t now)
{
    m_starts[m_count % m_starts.size()] = now;
    ++m_count;
}
