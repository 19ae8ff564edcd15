// CrashReport.h: a dump as text for a person.
#pragma once

#include <functional>
#include <string>

#include "CrashDump.h"
#include "StackFrame.h"

/// What the report takes from this machine.
struct CrashReportSources
{
    std::function<StackTrace(const DumpedThread&)> stackOf;
    std::function<bool(const DumpedModule&)> isHere;
};

/// What crashed, where and why, the crashed thread first; then the other threads, modules and notes. Nothing in a dump
/// can move a reader's cursor or forge a line: controls are shown as escapes.
std::string CrashReport(const CrashDump& dump, const CrashReportSources& sources);
