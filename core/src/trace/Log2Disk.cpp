// The framework's log target.
//
// Tested by: unit/core/trace/Log2DiskTest.cpp, blackbox/test_log.py.

#include <VelCore/Log2Disk.h>

#include <iterator>

#include "trace/LogFile.h"
#include "trace/RecordLine.h"

namespace VelCore {
namespace {

// By the framework's level numbers.
const char* const kLevelWords[] = {"Fatal", "Error", "Warning", "Message", "Status", "Verbose", "Debug", "Trace"};

const char* LevelWord(wxLogLevel level)
{
    // Levels above Trace are the framework's progress records and a program's own; both are plain messages.
    return level < std::size(kLevelWords) ? kLevelWords[level] : "Message";
}

} // namespace

void CLog2Disk::DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo& info)
{
    CRecordLine& record = CLogFile::Begin(info.timestamp, LevelWord(level));
    CLogFile::Get().Append(record.AddEscaped(message));
}

CTerminalQuiet::CTerminalQuiet()
{
    CLogFile::QuietTerminal(true);
}

CTerminalQuiet::~CTerminalQuiet()
{
    CLogFile::QuietTerminal(false);
}

} // namespace VelCore
