// The log file: opening it where nobody can have planted a link, appending, rotating.
//
// Tested by: unit/core/trace/LogFileTest.cpp, blackbox/test_log.py.

#include "trace/LogFile.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/log.h>

#include <VelCore/Dom.h>
#include <VelCore/Utf8.h>

#include "process/Descriptors.h"
#include "trace/RecordText.h"

namespace VelCore {
namespace {

thread_local int t_quiet = 0;

bool StandardErrorIsTerminal()
{
    static const bool b_IsTerminal = isatty(STDERR_FILENO) != 0;
    return b_IsTerminal;
}

// Local time in the framework's format. A burst of records shares the second, so the text is kept per thread.
const std::string& Stamp(std::time_t when)
{
    thread_local std::time_t t_when = -1;
    thread_local std::string t_stamp;
    if (when != t_when) {
        std::tm local{};
        localtime_r(&when, &local);
        char text[128];
        const std::size_t length = std::strftime(text, sizeof text, ToUtf8(wxLog::GetTimestamp()).c_str(), &local);
        t_stamp.assign(text, length);
        t_when = when;
    }
    return t_stamp;
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

void CLogFile::Append(std::time_t when, std::string_view level, std::string_view text)
{
    const std::string line = RecordLine(Stamp(when), static_cast<long>(getpid()), level, text);

    const std::lock_guard lock(m_mutex);
    FollowSettings();
    std::string reason;
    if (m_work.empty() || !ReadyToWrite(reason) || !WriteLine(line, reason)) {
        WriteToStandardError(line, reason);
        return;
    }
    m_lastReason.clear();
    if (t_quiet == 0 && StandardErrorIsTerminal())
        WriteAll(STDERR_FILENO, line);
}

void CLogFile::FollowSettings()
{
    const std::uint64_t generation = CDom::SettingsGeneration();
    if (generation == m_generation)
        return;
    m_generation = generation;

    const CDom* root = CDom::Root();
    if (!root)
        return; // the last words of the process still go where the others went
    const std::string work = root->Get("app.path.work");
    const std::string fileName = LogFileStem(root->Get("app.name")) + ".log";
    if (work == m_work && fileName == m_fileName)
        return;
    Close();
    m_work = work;
    m_fileName = fileName;
    m_rotateAt = s_RotateAt;
}

bool CLogFile::ReadyToWrite(std::string& reason)
{
    // Twice at the most: the second round looks at the file that another process may just have started.
    for (int round = 0; round < 2; ++round) {
        if (m_file < 0 && !Open(reason))
            return false;

        struct stat current = {};
        if (fstatat(m_folder, m_fileName.c_str(), &current, AT_SYMLINK_NOFOLLOW) != 0 || !IsSame(current, m_identity)) {
            Close(); // somebody removed or rotated it: go on with the current one
            continue;
        }
        if (current.st_size < m_rotateAt || !Rotate())
            return true;
    }
    return m_file >= 0 || Open(reason);
}

bool CLogFile::MakeFolder(std::string& reason)
{
    const std::string path = m_work + "/log";
    if (!MakeFolders(path, 0700)) {
        reason = SystemReason("cannot create log folder", path);
        return false;
    }
    m_folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (m_folder < 0) {
        reason = SystemReason("cannot open log folder", path);
        return false;
    }
    return true;
}

bool CLogFile::Open(std::string& reason)
{
    Close();
    if (!MakeFolder(reason))
        return false;

    // A link, a fifo or somebody else's file in the log's place must neither be followed nor block.
    const std::string path = m_work + "/log/" + m_fileName;
    const int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    m_file = openat(m_folder, m_fileName.c_str(), flags);
    if (m_file < 0 && errno == ENOENT) {
        m_file = openat(m_folder, m_fileName.c_str(), flags | O_CREAT, 0600);
        if (m_file >= 0)
            fchmod(m_file, 0600); // whatever the umask
    }
    if (m_file < 0 || fstat(m_file, &m_identity) != 0) {
        reason = SystemReason("cannot open log file", path);
    } else if (!S_ISREG(m_identity.st_mode)) {
        reason = "cannot use log file '" + path + "': not a regular file";
    } else if (m_identity.st_uid != geteuid()) {
        reason = "cannot use log file '" + path + "': it belongs to another user";
    } else {
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
    m_torn = false;
}

// Moves the full file away, unless another process has done so. Returns whether there is another file to look at.
bool CLogFile::Rotate()
{
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    while (fcntl(m_file, F_SETLKW, &whole) != 0) {
        if (errno != EINTR)
            return false; // no locks here: one long file is better than a lost record
    }

    struct stat current = {};
    const bool isCurrent =
        fstatat(m_folder, m_fileName.c_str(), &current, AT_SYMLINK_NOFOLLOW) == 0 && IsSame(current, m_identity);
    if (isCurrent && !ShiftOldFiles()) {
        m_rotateAt += s_RotateAt;
        whole.l_type = F_UNLCK;
        fcntl(m_file, F_SETLK, &whole);
        return false;
    }
    m_rotateAt = s_RotateAt;
    Close(); // releases the lock
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

bool CLogFile::WriteLine(const std::string& line, std::string& reason)
{
    if (m_torn && WriteAll(m_file, "\n") == 1)
        m_torn = false;
    const std::size_t written = m_torn ? 0 : WriteAll(m_file, line);
    if (written == line.size())
        return true;
    reason = SystemReason("cannot write log file", m_work + "/log/" + m_fileName);
    // What a full disk cut short goes whole to standard error, so it is taken back here. If somebody has written behind
    // it, it stays, and the next record starts on a line of its own.
    m_torn = m_torn || (written > 0 && !TakeBack(written));
    return false;
}

// Removes the last `length` bytes that this process has written, if they are still the end of the file.
bool CLogFile::TakeBack(std::size_t length)
{
    const off_t end = lseek(m_file, 0, SEEK_CUR); // an append moves the position to its own end
    struct stat status = {};
    return end >= 0 && fstat(m_file, &status) == 0 && status.st_size == end &&
           ftruncate(m_file, end - static_cast<off_t>(length)) == 0;
}

void CLogFile::WriteToStandardError(const std::string& line, const std::string& reason)
{
    if (t_quiet != 0 && StandardErrorIsTerminal())
        return; // the program itself shows this text there
    if (!reason.empty() && reason != m_lastReason)
        WriteAll(STDERR_FILENO, EscapeControls(reason) + "\n");
    m_lastReason = reason;
    WriteAll(STDERR_FILENO, line);
}

} // namespace VelCore
