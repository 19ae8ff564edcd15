// SharedText.h: a text that a crash handler may read at any instant.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace VelCore {

/// Keeps the last value whole while the next one is written. Longer texts are cut.
///
/// Threads: one writer at a time; the reader is a signal handler, or the only thread of a fork.
template <std::size_t Capacity>
class SharedText
{
public:
    void Set(std::string_view text)
    {
        const int next = 1 - m_current.load(std::memory_order_relaxed);
        m_sizes[next] = std::min(text.size(), Capacity);
        std::memcpy(m_texts[next], text.data(), m_sizes[next]);
        m_current.store(next, std::memory_order_release);
    }

    std::string_view Get() const
    {
        const int current = m_current.load(std::memory_order_acquire);
        return {m_texts[current], m_sizes[current]};
    }

private:
    char m_texts[2][Capacity] = {};
    std::size_t m_sizes[2] = {};
    std::atomic<int> m_current{0};
};

} // namespace VelCore
