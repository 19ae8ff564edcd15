// CrashDump.h: the work of the process that is forked at the moment of a crash.
#pragma once

#include <cstddef>

#include "crash/ProcessSnapshot.h"

namespace VelCore {

/// Where dumps go. Texts are terminated.
struct DumpSettings
{
    char folder[4096];
    char name[256];
    std::size_t present; // so much of the folder's path was there at the start; what was removed since stays removed
    bool full;
};

/// Writes the dump of the process that has forked this one, and its records into the log. Whether or not there is a
/// dump: when this returns the log says so.
///
/// A full dump that cannot be written, as on a full disk, makes room for a normal one. The dump is in its place before
/// the Lua calls are looked at: that happens in a process of its own, which may break.
///
/// Memory: allocates nothing and takes no lock.
void DumpCrashedProcess(const CrashSite& site, const DumpSettings& settings);

} // namespace VelCore
