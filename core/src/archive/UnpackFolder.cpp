// Where entries go. Only names that were vetted come here (EntryPath), so that one part of a name is one step.
//
// Tested by: unit/core/archive/UnzipTest.cpp.

#include "archive/UnpackFolder.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "archive/SyncFileSystem.h"
#include "archive/ZipFormat.h"

namespace VelCore {

namespace {

const mode_t kMissingFolder = 0755;
const mode_t kOwnersUse = 0700; // what this program, when it is not root, needs to write into a folder

const int kFolderFlags = O_RDONLY | O_DIRECTORY;

// Only makes names: those that are taken are passed over, so that it need not be a good one.
std::uint64_t RandomNumber()
{
    std::uint64_t number = 0;
    if (getentropy(&number, sizeof number) != 0)
        number = static_cast<std::uint64_t>(getpid()) << 32;
    return number;
}

// A folder below `top`, without following links.
CDescriptor OpenBelow(int top, const std::string& folder)
{
    CDescriptor opened = OpenAt(top, ".", kFolderFlags);
    for (std::size_t begin = 0; opened.IsOpen() && begin < folder.size();) {
        const std::size_t end = std::min(folder.find('/', begin), folder.size());
        opened = OpenAt(opened.Get(), folder.substr(begin, end - begin).c_str(), kFolderFlags | O_NOFOLLOW);
        begin = end + 1;
    }
    return opened;
}

} // namespace

CUnpackFolder::CUnpackFolder(std::string destination)
    : m_destination(std::move(destination)), m_fileNumber(RandomNumber())
{
}

bool CUnpackFolder::MakeFolder(const EntryPath& path, mode_t permissions, std::string& reason)
{
    const std::string folder = path.Whole();
    if (!Enter(folder, permissions, reason))
        return false;
    if (m_made.count(m_currentIdentity) == 0)
        return true;

    m_waitingPermissions.erase(folder);
    if ((permissions & kOwnersUse) != kOwnersUse)
        m_waitingPermissions.emplace(folder, permissions);
    if (fchmod(m_current.Get(), permissions | kOwnersUse) == 0)
        return true;
    reason = DescribeError("cannot set the permissions of the folder", errno);
    return false;
}

std::optional<CNewFile> CUnpackFolder::StartFile(const EntryPath& path, std::string& reason)
{
    if (!Enter(path.folder, kMissingFolder, reason))
        return std::nullopt;
    return CNewFile::Create(m_current.Get(), m_fileNumber, reason);
}

void CUnpackFolder::RemoveLeftovers() const
{
    const CDescriptor top = OpenAt(AT_FDCWD, m_destination.c_str(), kFolderFlags);
    if (!top.IsOpen())
        return; // what is not there holds nothing; another reason is for the first entry to find
    std::vector<std::string> folders{""};
    while (!folders.empty()) {
        const std::string folder = std::move(folders.back());
        folders.pop_back();
        const CDescriptor opened = OpenBelow(top.Get(), folder);
        if (!opened.IsOpen())
            continue; // gone meanwhile, or not ours to look into
        const std::string way = folder.empty() ? folder : folder + '/';
        for (const std::string& name : VelCore::RemoveLeftovers(opened.Get()))
            folders.push_back(std::string(way).append(name));
    }
}

void CUnpackFolder::TakeBack()
{
    m_current.Close();
    // A folder that somebody else has put something into stays.
    for (auto made = m_madeLast.rbegin(); made != m_madeLast.rend(); ++made)
        unlinkat(m_top.Get(), made->c_str(), AT_REMOVEDIR);
    m_madeLast.clear();
}

bool CUnpackFolder::Finish(std::string& reason)
{
    if (!m_top.IsOpen())
        return true;
    if (!SetWaitingPermissions(reason) || !Leave(reason))
        return false;
    for (const auto& fileSystem : m_fileSystems) {
        if (!SyncFileSystem(fileSystem.second.Get())) {
            reason = DescribeError("cannot bring the files to the disk", errno);
            return false;
        }
    }
    return true;
}

// Makes a folder the current one, and makes it if need be, with these permissions.
bool CUnpackFolder::Enter(const std::string& folder, mode_t permissions, std::string& reason)
{
    m_madeLast.clear();
    if (m_current.IsOpen() && folder == m_currentName)
        return true;
    if ((!m_top.IsOpen() && !OpenDestination(reason)) || !Leave(reason))
        return false;
    if (Walk(folder, permissions, reason) && Arrive(reason))
        return true;
    TakeBack();
    return false;
}

bool CUnpackFolder::Walk(const std::string& folder, mode_t permissions, std::string& reason)
{
    m_current = OpenAt(m_top.Get(), ".", kFolderFlags);
    m_currentName.clear();
    if (!m_current.IsOpen()) {
        reason = DescribeError("cannot open the destination", errno);
        return false;
    }
    for (std::size_t begin = 0; begin < folder.size();) {
        const std::size_t end = std::min(folder.find('/', begin), folder.size());
        const std::string part = folder.substr(begin, end - begin);
        if (!Descend(part, end == folder.size() ? permissions : kMissingFolder, reason))
            return false;
        m_currentName = InCurrent(part);
        begin = end + 1;
    }
    return true;
}

bool CUnpackFolder::OpenDestination(std::string& reason)
{
    const char* const name = m_destination.c_str();
    m_top = OpenAt(AT_FDCWD, name, kFolderFlags);
    if (m_top.IsOpen())
        return true;
    if (errno == ENOENT && MakeFolders(m_destination, kMissingFolder)) {
        m_top = OpenAt(AT_FDCWD, name, kFolderFlags);
        if (m_top.IsOpen()) {
            m_made.insert(IdentifyDescriptor(m_top.Get()));
            return true;
        }
    }
    reason = DescribeError("cannot open the destination", errno);
    return false;
}

// One step down from the current folder.
bool CUnpackFolder::Descend(const std::string& part, mode_t permissions, std::string& reason)
{
    CDescriptor next = OpenAt(m_current.Get(), part.c_str(), kFolderFlags | O_NOFOLLOW);
    if (!next.IsOpen() && errno == ENOENT)
        return MakeMissing(part, permissions, reason);
    if (next.IsOpen()) {
        m_current = std::move(next);
        return true;
    }
    if (errno == ENOTDIR || errno == ELOOP)
        reason = "'" + PrintableName(part) + "' is there and is not a folder";
    else
        reason = DescribeError("cannot open the folder '" + PrintableName(part) + "'", errno);
    return false;
}

// One step down into a folder that is made first. It has its permissions from the first instant, as far as the umask
// lets them through: a run that finds it later, because this one was killed, takes it for one that was there before.
bool CUnpackFolder::MakeMissing(const std::string& part, mode_t permissions, std::string& reason)
{
    const mode_t mode = permissions | kOwnersUse;
    const bool isOurs = mkdirat(m_current.Get(), part.c_str(), mode) == 0;
    if (isOurs)
        m_madeLast.push_back(InCurrent(part));
    CDescriptor next;
    if (isOurs || errno == EEXIST)
        next = OpenAt(m_current.Get(), part.c_str(), kFolderFlags | O_NOFOLLOW);
    if (next.IsOpen() && !isOurs) {
        m_current = std::move(next); // another process has made it in the meantime
        return true;
    }
    if (!next.IsOpen() || fchmod(next.Get(), mode) != 0 || !SyncWritten(m_current.Get())) {
        reason = DescribeError("cannot make the folder '" + PrintableName(part) + "'", errno);
        return false;
    }
    const FileIdentity made = IdentifyDescriptor(next.Get());
    m_made.insert(made);
    m_current = std::move(next);
    return true;
}

std::string CUnpackFolder::InCurrent(const std::string& part) const
{
    return m_currentName.empty() ? part : m_currentName + '/' + part;
}

// What was written into the current folder stays there.
bool CUnpackFolder::Leave(std::string& reason)
{
    if (!m_current.IsOpen() || SyncWritten(m_current.Get()))
        return true;
    reason = DescribeError("cannot bring the folder to the disk", errno);
    return false;
}

// Notes what the current folder is and which file system it is on.
bool CUnpackFolder::Arrive(std::string& reason)
{
    m_currentIdentity = IdentifyDescriptor(m_current.Get());
    const dev_t device = m_currentIdentity.first;
    if (std::any_of(m_fileSystems.begin(), m_fileSystems.end(),
                    [device](const auto& known) { return known.first == device; }))
        return true;
    CDescriptor folder = OpenAt(m_current.Get(), ".", kFolderFlags);
    if (!folder.IsOpen()) {
        reason = DescribeError("cannot open the folder", errno);
        return false;
    }
    m_fileSystems.emplace_back(device, std::move(folder));
    return true;
}

bool CUnpackFolder::SetWaitingPermissions(std::string& reason)
{
    // From below: a folder that is closed to its owner hides what is in it.
    for (auto waiting = m_waitingPermissions.rbegin(); waiting != m_waitingPermissions.rend(); ++waiting) {
        if (!Enter(waiting->first, kMissingFolder, reason))
            return false;
        if (fchmod(m_current.Get(), waiting->second) != 0) {
            reason = DescribeError("cannot set the permissions of '" + PrintableName(waiting->first) + "'", errno);
            return false;
        }
    }
    m_waitingPermissions.clear();
    return true;
}

} // namespace VelCore
