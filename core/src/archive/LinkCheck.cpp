// Links on the way of an entry, found before anything is written. Whoever writes does not follow links either; this
// is what lets an archive be refused as a whole.
//
// Tested by: unit/core/archive/LinkCheckTest.cpp.

#include "archive/LinkCheck.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <sys/stat.h>

#include "archive/ZipFormat.h"

namespace VelCore {

bool CLinkCheck::Open(const std::string& destination, std::string& reason)
{
    m_destination = OpenAt(AT_FDCWD, destination.c_str(), O_RDONLY | O_DIRECTORY);
    if (m_destination.IsOpen() || errno == ENOENT)
        return true;
    reason = DescribeError("cannot open the folder", errno);
    return false;
}

bool CLinkCheck::IsClear(const EntryPath& path, EntryKind kind, std::string& reason)
{
    const std::string way = kind == EntryKind::Folder ? path.Whole() : path.folder;
    if (!m_destination.IsOpen() || way.empty() || way == m_lastClear)
        return true;

    // From the top: what lies above is known to be a folder when something is looked at.
    for (std::size_t end = 0; end < way.size();) {
        end = std::min(way.find('/', end + 1), way.size());
        const std::string folder = way.substr(0, end);
        switch (LookAt(folder)) {
        case Found::Folder:
            continue;
        case Found::Link:
            reason = "'" + PrintableName(folder) + "' on the way is a symbolic link";
            return false;
        case Found::Unknown:
            reason = DescribeError("cannot look at '" + PrintableName(folder) + "' on the way", errno);
            return false;
        case Found::Nothing:
            return true;
        }
    }
    m_lastClear = way;
    return true;
}

CLinkCheck::Found CLinkCheck::LookAt(const std::string& folder)
{
    const auto known = m_known.find(folder);
    if (known != m_known.end())
        return known->second;

    struct stat status = {};
    Found found = Found::Nothing;
    if (fstatat(m_destination.Get(), folder.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        found = errno == ENOENT ? Found::Nothing : Found::Unknown;
    else if (S_ISLNK(status.st_mode))
        found = Found::Link;
    else if (S_ISDIR(status.st_mode))
        found = Found::Folder;
    if (found != Found::Unknown) // of no use twice, and errno belongs to it
        m_known.emplace(folder, found);
    return found;
}

} // namespace VelCore
