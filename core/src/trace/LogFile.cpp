// The log file: opening it where nobody can have planted a link, appending, rotating.
//
// Tested by: unit/core/trace/LogFileTest.cpp, blackbox/test_log.py.

#include "trace/LogFile.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/log.h>

#include <VelCore/Dom.h>
#include <VelCore/Utf8.h>

#include "crash/CrashLog.h"
#include "process/Descriptors.h"
#include "process/OwnPid.h"
#include "threads/OfThread.h"
#include "time/CivilTime.h"
#include "trace/RecordText.h"

namespace VelCore {
namespace {

thread_local int t_quiet = 0;

const mode_t kFolderMode = 0700;
const mode_t kFileMode = 0600;

// How far back the beginning of a broken record is looked for.
const std::size_t kTailBytes = 65536;

// A write that a signal cuts short ends at the end of a page. Pages are multiples of this everywhere.
const off_t kPage = 4096;

bool StandardErrorIsTerminal()
{
    static const bool b_IsTerminal = isatty(STDERR_FILENO) != 0;
    return b_IsTerminal;
}

// "<stamp> [<pid>] ", in local time and the framework's format.
struct RecordHead
{
    std::time_t when = -1;
    pid_t process = 0;
    std::string text;
};

// A burst of records shares the second, so the text is kept per thread.
const std::string& HeadOf(std::time_t when)
{
    auto& head = OfThread<RecordHead>();
    if (when != head.when || head.process != OwnPid()) {
        std::tm local{};
        localtime_r(&when, &local);
        char stamp[128];
        const std::size_t length = std::strftime(stamp, sizeof stamp, ToUtf8(wxLog::GetTimestamp()).c_str(), &local);
        head.text = std::string(stamp, length) + " [" + std::to_string(OwnPid()) + "] ";
        SetCrashUtcOffset(SecondsOf({local.tm_year + 1900L, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                                     local.tm_min, local.tm_sec}) -
                          when);
        head.process = OwnPid();
        head.when = when;
    }
    return head.text;
}

bool IsSame(const struct stat& one, const struct stat& other)
{
    return one.st_ino == other.st_ino && one.st_dev == other.st_dev;
}

std::string SystemReason(const char* what, const std::string& path)
{
    const int error = errno;
    return std::string(what) + " '" + path + "': " + std::strerror(error);
}

// What stood there before may be open to others; that much is taken away, and nothing is given. What belongs to another
// user is left as it is.
void CloseToOthers(int descriptor, const struct stat& status, mode_t mode)
{
    const mode_t permissions = status.st_mode & 07777;
    if (status.st_uid == geteuid() && (permissions & ~mode) != 0)
        fchmod(descriptor, permissions & mode);
}

} // namespace

CLogFile& CLogFile::Get()
{
    static CLogFile& file = *new CLogFile;
    return file;
}

void CLogFile::QuietTerminal(bool quiet)
{
    t_quiet += quiet ? 1 : -1;
}

void CLogFile::TellCrashHandler()
{
    HeadOf(std::time(nullptr));
    const std::lock_guard lock(m_mutex);
    FollowSettings();
}

CRecordLine& CLogFile::Begin(std::time_t when, std::string_view level)
{
    auto& record = OfThread<CRecordLine>();
    record.Clear();
    return record.Add(HeadOf(when)).Add(level).Add(": ");
}

void CLogFile::Append(std::time_t when, std::string_view level, std::string_view text)
{
    Append(Begin(when, level).AddEscaped(text));
}

void CLogFile::Append(CRecordLine& record, CLogLease::Clock::time_point now)
{
    const std::string_view line = record.Add("\n").Text();
    const std::size_t taken = AppendAlone(line, now);
    if (taken < line.size()) {
        const std::lock_guard lock(m_mutex);
        TakeBack(line.substr(0, taken));
        FollowSettings();
        std::string reason;
        if (m_work.empty() || !WriteUnderLock(line, reason)) {
            WriteToStandardError(line, reason);
            return;
        }
        m_lastReason.clear();
    }
    if (t_quiet == 0 && StandardErrorIsTerminal())
        WriteAll(STDERR_FILENO, line);
}

// Threads of a process with the lease append side by side: the system keeps their lines apart. Returns how much of the
// line the file took; without the lease nothing.
std::size_t CLogFile::AppendAlone(std::string_view line, CLogLease::Clock::time_point now)
{
    const std::shared_lock lock(m_mutex);
    if (!m_lease.IsValid(now) || m_end < 0 || m_end >= m_rotateAt || m_generation != CDom::SettingsGeneration())
        return 0;
    const ssize_t taken = write(m_file, line.data(), line.size());
    if (taken == static_cast<ssize_t>(line.size()))
        m_end += taken;
    return taken > 0 ? static_cast<std::size_t>(taken) : 0;
}

void CLogFile::FollowSettings()
{
    const std::uint64_t generation = CDom::SettingsGeneration();
    if (generation == m_generation)
        return;

    const CDom* root = CDom::Root();
    if (!root) {
        m_generation = generation;
        return; // the last words of the process still go where the others went
    }
    std::string work = root->Get("app.path.work");
    std::string fileName = LogFileStem(root->Get("app.name")) + ".log";
    std::string path = work + "/log/" + fileName;
    m_generation = generation; // not sooner: if memory was short for those, the next record follows
    if (work == m_work && fileName == m_fileName)
        return;
    Close();
    m_lease.StartAnew();
    m_work = std::move(work);
    m_fileName = std::move(fileName);
    m_path = std::move(path);
    m_rotateAt = s_RotateAt;
    SetCrashLogPath(m_work.empty() ? "" : m_path);
}

bool CLogFile::WriteUnderLock(std::string_view line, std::string& reason)
{
    const bool isWritten = ReadyToWrite(reason) && WriteLine(line, reason);
    if (isWritten)
        m_lease.Look(m_file);
    if (m_file >= 0)
        UnlockLog(m_file);
    return isWritten;
}

// Leaves the file locked.
bool CLogFile::ReadyToWrite(std::string& reason)
{
    // The file that another process has just started may be full in its turn, but not again and again.
    for (int round = 0; round < s_OldFiles; ++round) {
        if (m_file < 0 && !Open(reason))
            return false;
        m_isLocked = LockLog(m_file, s_LockAttempts);
        if (m_lease.IsInherited())
            m_end = -1; // the parent may have gone on

        struct stat current = {};
        if (!Find(current) || !IsSame(current, m_identity)) {
            Close(); // somebody removed, moved or rotated it: go on with the current one
            m_lease.StartAnew();
            continue;
        }
        if (current.st_size >= m_rotateAt && Rotate())
            continue;
        if (current.st_size != m_end) {
            m_lease.NoteOthers(current.st_mtim);
            TakeOver();
        }
        return true;
    }
    return m_file >= 0 || Open(reason);
}

// By its whole path, as a folder on the way may be moved with everything in it. Only what was never absolute is looked
// for in the folder that was opened: the process may have gone elsewhere since.
bool CLogFile::Find(struct stat& status) const
{
    const bool isAbsolute = m_work.front() == '/';
    return fstatat(m_folder, isAbsolute ? m_path.c_str() : m_fileName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

// Somebody else has written last. If he has the lease he may be late, and have been stopped between two pages of a
// record, which then looks like the piece that a killed process leaves: that is waited for like a lock.
void CLogFile::TakeOver()
{
    CLogLease::AwaitOthers(m_file);
    off_t size = 0;
    bool mayBeWriting = true;
    for (int attempt = 0; attempt < s_LockAttempts; ++attempt) {
        mayBeWriting = CLogLease::IsOthers(m_file); // asked first: nobody begins to write behind a "no"
        size = lseek(m_file, 0, SEEK_END);
        if (!mayBeWriting || EndsALine(size))
            break;
        PauseForLog();
    }
    EndLastLine(size, m_isLocked && !mayBeWriting);
    const off_t end = lseek(m_file, 0, SEEK_END);
    m_end = EndsALine(end) ? end : -1; // -1: the next record looks again
}

bool CLogFile::EndsALine(off_t size) const
{
    char last = '\n';
    return size <= 0 || pread(m_file, &last, 1, size - 1) != 1 || last == '\n';
}

bool CLogFile::MakeFolder(std::string& reason)
{
    const std::string path = m_work + "/log";
    if (!MakeFolders(path, kFolderMode)) {
        reason = SystemReason("cannot create log folder", path);
        return false;
    }
    m_folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (m_folder < 0) {
        reason = SystemReason("cannot open log folder", path);
        return false;
    }
    struct stat status = {};
    if (fstat(m_folder, &status) == 0)
        CloseToOthers(m_folder, status, kFolderMode);
    return true;
}

bool CLogFile::Open(std::string& reason)
{
    Close();
    if (!MakeFolder(reason))
        return false;

    // A link, a fifo or somebody else's file in the log's place must neither be followed nor block.
    const int flags = O_RDWR | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    m_file = openat(m_folder, m_fileName.c_str(), flags);
    if (m_file < 0 && errno == ENOENT) {
        m_file = openat(m_folder, m_fileName.c_str(), flags | O_CREAT, kFileMode);
        if (m_file >= 0)
            fchmod(m_file, kFileMode); // whatever the umask
    }
    if (m_file < 0 || fstat(m_file, &m_identity) != 0) {
        reason = SystemReason("cannot open log file", m_path);
    } else if (!S_ISREG(m_identity.st_mode)) {
        reason = "cannot use log file '" + m_path + "': not a regular file";
    } else if (m_identity.st_uid != geteuid()) {
        reason = "cannot use log file '" + m_path + "': it belongs to another user";
    } else {
        CloseToOthers(m_file, m_identity, kFileMode);
        return true;
    }
    Close();
    return false;
}

void CLogFile::Close()
{
    for (int* descriptor : {&m_file, &m_folder}) {
        if (*descriptor >= 0)
            close(*descriptor);
        *descriptor = -1;
    }
    m_end = 0;
    m_lease.Drop();
}

// Moves the full file away; closes it, and so releases the lock. Returns false when it has to stay.
bool CLogFile::Rotate()
{
    if (!ShiftOldFiles()) {
        m_rotateAt += s_RotateAt;
        return false;
    }
    m_rotateAt = s_RotateAt;
    Close();
    return true;
}

// `.log` becomes `.log.1`, `.log.1` becomes `.log.2` and so on up to the first free number. A process that is killed
// half-way leaves a gap, which the next rotation fills before it gives up a file.
bool CLogFile::ShiftOldFiles()
{
    const auto nameOf = [this](int number) { return m_fileName + "." + std::to_string(number); };
    struct stat status = {};
    int last = 1;
    while (last < s_OldFiles && fstatat(m_folder, nameOf(last).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        ++last;
    for (int number = last; number > 1; --number) {
        if (renameat(m_folder, nameOf(number - 1).c_str(), m_folder, nameOf(number).c_str()) != 0)
            return false;
    }
    return renameat(m_folder, m_fileName.c_str(), m_folder, nameOf(1).c_str()) == 0;
}

bool CLogFile::WriteLine(std::string_view line, std::string& reason)
{
    const std::size_t written = WriteAll(m_file, line);
    if (written == line.size()) {
        if (m_end >= 0)
            m_end += static_cast<off_t>(written);
        return true;
    }
    reason = SystemReason("cannot write log file", m_path);
    m_lease.Expire();
    TakeBack(line.substr(0, written));
    return false;
}

// Removes the piece of a record that a full disk cut short, as the whole goes elsewhere. If the file does not end with
// it any more, the next record looks at what there is.
void CLogFile::TakeBack(std::string_view piece)
{
    if (piece.empty())
        return;
    std::string bytes(piece.size(), '\0');
    struct stat status = {};
    const off_t end = m_end + static_cast<off_t>(piece.size());
    const bool isLast = m_end >= 0 && fstat(m_file, &status) == 0 && status.st_size == end &&
                        pread(m_file, bytes.data(), bytes.size(), m_end) == static_cast<ssize_t>(bytes.size()) &&
                        bytes == piece;
    if (!isLast || ftruncate(m_file, m_end) != 0)
        m_end = -1;
}

// If the other one was killed meanwhile, the piece of a record that he left is removed: his call has never returned, so
// nobody counts on it. Whatever else has no end becomes a line of its own.
void CLogFile::EndLastLine(off_t size, bool mayRemove)
{
    char bytes[kTailBytes];
    const std::size_t length = std::min(sizeof bytes, static_cast<std::size_t>(size));
    const off_t start = size - static_cast<off_t>(length);
    if (pread(m_file, bytes, length, start) != static_cast<ssize_t>(length))
        return;
    const std::string_view tail(bytes, length);
    if (tail.empty() || tail.back() == '\n')
        return;
    const std::size_t lineFeed = tail.rfind('\n');
    const bool isPiece = mayRemove && size % kPage == 0 && lineFeed != std::string_view::npos &&
                         std::isdigit(static_cast<unsigned char>(tail[lineFeed + 1])) != 0;
    if (!isPiece || ftruncate(m_file, start + static_cast<off_t>(lineFeed) + 1) != 0)
        WriteAll(m_file, "\n");
}

void CLogFile::WriteToStandardError(std::string_view line, const std::string& reason)
{
    if (t_quiet != 0 && StandardErrorIsTerminal())
        return; // the program itself shows this text there
    if (!reason.empty() && reason != m_lastReason)
        WriteAll(STDERR_FILENO, EscapeControls(reason) + "\n");
    m_lastReason = reason;
    WriteAll(STDERR_FILENO, line);
}

} // namespace VelCore
