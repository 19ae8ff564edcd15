// CrashReport.h: a crash in words.
#pragma once

#include <string_view>

#include "crash/ProcessSnapshot.h"
#include "crash/TextBuffer.h"

namespace VelCore {

/// What the system calls the signal, in English; "unknown signal" for one that is not a crash.
std::string_view CrashSignalName(int signal);

/// Appends "Crashed by signal 11 (Segmentation fault) in thread 4711"; an access that failed, "at address 0x10".
void AddCrash(const CrashSite& site, CTextBuffer& text);

/// Whether the signal came from a failed access or instruction, whose address is known.
bool HasFaultAddress(const CrashSite& site);

} // namespace VelCore
