// LogFile.h: the file behind log and trace.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <shared_mutex>
#include <string>
#include <string_view>

#include <sys/stat.h>

#include "trace/LogLock.h"
#include "trace/RecordLine.h"

namespace VelCore {

/// Appends records to `<app.path.work>/log/<app.name>.log` of the root domain, follows those settings when they
/// change, and rotates the file.
///
/// Several processes may share the file: each record is one append under a lock on the file, and so is the rotation. A
/// process that is killed in the middle of an append leaves a piece of a line, since the system writes page by page;
/// the next writer removes it. A process that is stopped there does not stop the others for long.
///
/// A process that is alone with the file and busy takes the lock, and looks at what else has happened to the file, not
/// for each record but every half millisecond; see CLogLease.
///
/// Errors:    a record that the file does not take goes to standard error, after one line that says why.
/// Ownership: one for the process, never destroyed, because threads may still log while the process ends.
/// Threads:   any. Forking is safe while no other thread logs.
class CLogFile
{
public:
    static const std::int64_t s_RotateAt = 0xA00000; // bytes: 10 MiB
    static const int s_OldFiles = 5;
    static const int s_LockAttempts = 10000; // about a second

    static CLogFile& Get();

    /// Begins a record of the calling thread: everything ahead of its text.
    ///
    /// when   seconds since the epoch, shown in local time by the framework log's time-stamp format
    /// level  the level word
    static CRecordLine& Begin(std::time_t when, std::string_view level);

    /// Ends a record that was begun like that and writes it; it is in the file when the call returns.
    ///
    /// now  a look at the clock that is not older than the record; each costs as much as a tenth of a short one
    void Append(CRecordLine& record, CLogLease::Clock::time_point now = CLogLease::Clock::now());

    /// Both at once, for a text that is UTF-8 and not escaped.
    void Append(std::time_t when, std::string_view level, std::string_view text);

    /// Lets a crash write its records where this object writes, and in local time, also when nothing was logged before.
    void TellCrashHandler();

    /// Switches showing records on a terminal off and on again for the calling thread; calls nest.
    static void QuietTerminal(bool quiet);

private:
    CLogFile() = default;

    std::size_t AppendAlone(std::string_view line, CLogLease::Clock::time_point now);
    void FollowSettings();
    bool Open(std::string& reason);
    void Close();
    bool MakeFolder(std::string& reason);
    bool WriteUnderLock(std::string_view line, std::string& reason);
    bool ReadyToWrite(std::string& reason);
    bool Find(struct stat& status) const;
    bool Rotate();
    void TakeOver();
    bool EndsALine(off_t size) const;
    void EndLastLine(off_t size, bool mayRemove);
    bool ShiftOldFiles();
    void TakeBack(std::string_view piece);
    bool WriteLine(std::string_view line, std::string& reason);
    void WriteToStandardError(std::string_view line, const std::string& reason);

    std::shared_mutex m_mutex;            // shared by threads that append side by side
    std::uint64_t m_generation = 0;       // of the settings that the path was made from
    std::string m_work;                   // the work folder; empty: not known yet
    std::string m_fileName;               // of the log file in its folder
    std::string m_path;                   // of the log file: both together, for each look at it
    int m_folder = -1;                    // descriptor of the log folder
    int m_file = -1;                      // descriptor of the log file
    struct stat m_identity = {};          // of the log file: device and inode
    std::int64_t m_rotateAt = s_RotateAt; // moved on when a rotation fails
    std::atomic<off_t> m_end{0};          // of the file after our last record; -1: not known
    bool m_isLocked = false;              // against other processes, as far as the last record knows
    CLogLease m_lease;
    std::string m_lastReason; // why the last record did not reach the file; empty: it did
};

} // namespace VelCore
