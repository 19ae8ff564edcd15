// Trace.h: progress records, switched on by module name.
#pragma once

#include <wx/string.h>

namespace VelCore {

/// Whether records of `module` are written: it, or "*", is in one of the comma-separated lists of the root domain's
/// `app.trace` and `app.trace+`. A change of either counts from the next call, which is cheap when nothing changed.
///
/// Threads: any.
bool LogTraceIsEnabled(const wxString& module);

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
