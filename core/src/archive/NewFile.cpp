// Unfinished files and what becomes of them.
//
// A writer holds a lock on its file from creation until the file has its name. A cleaner removes what it can lock. In
// the instant between creation and lock a cleaner can come first; the writer then finds its file without a name, and
// takes another.
//
// Tested by: unit/core/archive/NewFileTest.cpp.

#include "archive/NewFile.h"

#include <cerrno>
#include <memory>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/log.h>

#include <VelCore/Utf8.h>

#include "archive/SyncFileSystem.h"
#include "archive/TemporaryName.h"

namespace VelCore {

namespace {

const int kAttempts = 100; // each fails only when somebody takes just this name, or cleans at just this instant

bool IsLeftover(const struct stat& status)
{
    return S_ISREG(status.st_mode) && status.st_uid == geteuid();
}

void RemoveIfLeftover(int folder, const char* name)
{
    // The type comes first: to open a pipe or a device is to do something to it.
    struct stat status = {};
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !IsLeftover(status))
        return;
    const CDescriptor file = OpenAt(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (file.IsOpen() && flock(file.Get(), LOCK_EX | LOCK_NB) != 0)
        return; // is being written
    if ((!file.IsOpen() || unlinkat(folder, name, 0) != 0) && errno != ENOENT)
        wxLogWarning(
            L"%s", FromUtf8(DescribeError(std::string("Unable to remove the unfinished file '") + name + "'", errno)));
}

// Most file systems tell it with the name.
bool IsFolder(int folder, const dirent& entry)
{
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_DIR;
    struct stat status = {};
    return fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

std::optional<CNewFile> CNewFile::Create(int folder, std::uint64_t& number, std::string& reason)
{
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        std::string name = TemporaryName(number++);
        CDescriptor descriptor = OpenAt(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
        if (!descriptor.IsOpen() && errno == EEXIST)
            continue;
        if (!descriptor.IsOpen()) {
            reason = DescribeError("cannot create a file", errno);
            return std::nullopt;
        }
        CNewFile file(folder, std::move(descriptor), std::move(name));
        if (file.Lock())
            return file;
    }
    reason = "cannot create a file: no temporary name is free";
    return std::nullopt;
}

CNewFile::CNewFile(int folder, CDescriptor descriptor, std::string temporaryName)
    : m_folder(folder), m_descriptor(std::move(descriptor)), m_temporaryName(std::move(temporaryName))
{
}

CNewFile::~CNewFile()
{
    // One that cannot be removed is a leftover, which the next run removes.
    if (m_descriptor.IsOpen())
        unlinkat(m_folder, m_temporaryName.c_str(), 0);
}

// Whether the file still has its name once it is locked. A file system that knows no locks keeps cleaners off as well.
bool CNewFile::Lock() const
{
    while (flock(m_descriptor.Get(), LOCK_EX) != 0 && errno == EINTR) {
    }
    struct stat status = {};
    return fstat(m_descriptor.Get(), &status) == 0 && status.st_nlink > 0;
}

bool CNewFile::Write(std::string_view bytes, std::string& reason)
{
    if (WriteAll(m_descriptor.Get(), bytes) == bytes.size())
        return true;
    reason = DescribeError("cannot write", errno);
    return false;
}

bool CNewFile::PutInPlace(const std::string& name, mode_t permissions, std::string& reason)
{
    if (!Finish(permissions)) {
        reason = DescribeError("cannot write", errno);
        return false;
    }
    if (renameat(m_folder, m_temporaryName.c_str(), m_folder, name.c_str()) != 0) {
        reason = DescribeError("cannot put the file in place", errno);
        return false;
    }
    m_descriptor.Close(); // an error would have shown in Finish
    return true;
}

// Some file systems report a full disk only when a file is closed. A second descriptor is closed for that, since the
// lock has to be held until the file has its name.
bool CNewFile::Finish(mode_t permissions) const
{
    if (fchmod(m_descriptor.Get(), permissions) != 0 || !SyncWritten(m_descriptor.Get()))
        return false;
    CDescriptor second(fcntl(m_descriptor.Get(), F_DUPFD_CLOEXEC, 0));
    return second.IsOpen() && second.Close();
}

std::vector<std::string> RemoveLeftovers(int folder)
{
    std::vector<std::string> folders;
    CDescriptor again = OpenAt(folder, ".", O_RDONLY | O_DIRECTORY);
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(again.IsOpen() ? fdopendir(again.Get()) : nullptr, closedir);
    if (!listing) {
        wxLogWarning(L"%s", FromUtf8(DescribeError("Unable to look for unfinished files", errno)));
        return folders;
    }
    again.Release(); // the listing closes it
    while (const dirent* entry = readdir(listing.get())) {
        const std::string_view name = entry->d_name;
        if (IsTemporaryName(name))
            RemoveIfLeftover(folder, entry->d_name);
        else if (name != "." && name != ".." && IsFolder(folder, *entry))
            folders.emplace_back(name);
    }
    return folders;
}

} // namespace VelCore
