// A crash in words.
//
// Tested by: unit/core/crash/CrashReportTest.cpp.

#include "crash/CrashReport.h"

namespace VelCore {
namespace {

const struct
{
    int signal;
    std::string_view name;
} kNames[] = {
    {SIGABRT, "Aborted"},
    {SIGBUS, "Bus error"},
    {SIGFPE, "Floating point exception"},
    {SIGILL, "Illegal instruction"},
    {SIGSEGV, "Segmentation fault"},
    {SIGTRAP, "Trace/breakpoint trap"},
};

} // namespace

std::string_view CrashSignalName(int signal)
{
    for (const auto& row : kNames) {
        if (row.signal == signal)
            return row.name;
    }
    return "unknown signal";
}

bool HasFaultAddress(const CrashSite& site)
{
    // A code that is not positive means that a process has sent the signal.
    const int signal = site.signal;
    return site.information->si_code > 0 &&
           (signal == SIGSEGV || signal == SIGBUS || signal == SIGILL || signal == SIGFPE);
}

void AddCrash(const CrashSite& site, CTextBuffer& text)
{
    text.Add("Crashed by signal ").AddNumber(site.signal).Add(" (").Add(CrashSignalName(site.signal)).Add(")");
    if (HasFaultAddress(site))
        text.Add(" at address ").AddHex(reinterpret_cast<std::uintptr_t>(site.information->si_addr));
    text.Add(" in thread ").AddNumber(site.thread);
}

} // namespace VelCore
