// Trace.h: progress records, switched on by module name.
#pragma once

#include <atomic>
#include <cstdint>

#include <wx/string.h>

namespace VelCore {

// What answers most questions about a module that is off, at the cost of a load.
namespace TraceFilter {

/// Two bits for each module that may be on, at places that its name gives. All bits are set from a change of the lists
/// until somebody has asked.
extern std::atomic<std::uint64_t> g_bits;

inline std::uint64_t BitsOf(const wxString& module)
{
    const std::size_t length = module.length();
    const wxStringCharType* const text = module.wx_str(); // ends with a zero
    const std::uint64_t name = static_cast<std::uint64_t>(text[0]) +
                               (static_cast<std::uint64_t>(text[length / 2]) << 8) +
                               (static_cast<std::uint64_t>(length) << 16);
    const std::uint64_t hash = name * 0x9E3779B97F4A7C15; // 2^64 by the golden ratio, which spreads small numbers well
    return std::uint64_t{1} << (hash >> 58) | std::uint64_t{1} << (hash >> 52 & 63);
}

inline bool MayHold(const wxString& module)
{
    return (BitsOf(module) & ~g_bits.load(std::memory_order_relaxed)) == 0;
}

/// Has to be called behind every change of the lists.
void Reset();

} // namespace TraceFilter

/// The whole answer to LogTraceIsEnabled.
bool TraceListsHold(const wxString& module);

/// Whether records of `module` are written: it, or "*", is in one of the comma-separated lists of the root domain's
/// `app.trace` and `app.trace+`. A change of either counts from the next call, which is cheap when nothing changed.
///
/// Threads: any.
inline bool LogTraceIsEnabled(const wxString& module)
{
    return TraceFilter::MayHold(module) && TraceListsHold(module);
}

/// Writes one trace record, if `module` is enabled:
///
///     2026-11-20 12:34:56 [4711] Trace: Appl: OnInit (AgentApp_Lifecycle.cpp:42): text
///
/// file, function  UTF-8; only the part of `file` behind its last "/" is shown.
/// Format the message behind a LogTraceIsEnabled test, so that a module that is off costs nothing.
///
/// Threads: any; the record is in the log when the call returns.
void LogTrace(const wxString& module, const char* file, int line, const char* function, const wxString& message);

} // namespace VelCore
