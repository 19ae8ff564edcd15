// Owner and access rights, changed through descriptors only, so that no link can be slipped in between.
//
// Tested by: unit/core/process/SecureFileTest.cpp.

#include <VelCore/SecureFile.h>

#include <cerrno>
#include <memory>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/log.h>

#include <VelCore/Utf8.h>

namespace VelCore {
namespace {

const mode_t kFolderMode = 0700;
const mode_t kFileMode = 0600;

bool Report(const std::string& path, int error)
{
    wxLogSysError(error, L"Unable to secure '%s'", FromUtf8(path));
    return false;
}

bool SecureOpened(int descriptor, const struct stat& status, const std::string& path)
{
    const mode_t mode = S_ISDIR(status.st_mode) ? kFolderMode : kFileMode;
    const uid_t user = geteuid();
    if (status.st_uid != user && fchown(descriptor, user, static_cast<gid_t>(-1)) != 0)
        return Report(path, errno);
    if (fchmod(descriptor, mode) != 0)
        return Report(path, errno);
    return true;
}

bool SecureBelow(int folder, const std::string& path);

// Opens a folder or file that is about to be secured. Its owner may lack the right to read it, and gives it to himself
// first.
int OpenEntry(int folder, const char* name)
{
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    int descriptor = openat(folder, name, flags);
    if (descriptor < 0 && errno == EACCES && fchmodat(folder, name, kFileMode, AT_SYMLINK_NOFOLLOW) == 0)
        descriptor = openat(folder, name, flags);
    return descriptor;
}

// Secures what the descriptor holds, unless it is not what was found under the name.
bool SecureFound(int descriptor, const struct stat& found, const std::string& path)
{
    struct stat opened = {};
    if (fstat(descriptor, &opened) != 0)
        return Report(path, errno);
    if (opened.st_ino != found.st_ino || opened.st_dev != found.st_dev)
        return Report(path, EAGAIN); // somebody changed it under our hands
    return SecureOpened(descriptor, opened, path);
}

// Secures `name` in `folder`; `path` is what to call it in a report.
bool SecureEntry(int folder, const char* name, const std::string& path, bool recursive, bool isTop)
{
    struct stat found = {};
    if (fstatat(folder, name, &found, AT_SYMLINK_NOFOLLOW) != 0)
        return Report(path, errno);
    if (!S_ISDIR(found.st_mode) && !S_ISREG(found.st_mode))
        return isTop ? Report(path, S_ISLNK(found.st_mode) ? ELOOP : EINVAL) : true;

    const int descriptor = OpenEntry(folder, name);
    if (descriptor < 0)
        return Report(path, errno);
    const bool secured = SecureFound(descriptor, found, path);
    if (recursive && S_ISDIR(found.st_mode))
        return SecureBelow(descriptor, path) && secured; // closes the descriptor
    close(descriptor);
    return secured;
}

// Takes over `folder`, a descriptor.
bool SecureBelow(int folder, const std::string& path)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(fdopendir(folder), closedir);
    if (!listing) {
        const int error = errno;
        close(folder);
        return Report(path, error);
    }
    bool secured = true;
    while (const dirent* entry = readdir(listing.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        std::string below = path;
        below.append("/").append(name);
        secured = SecureEntry(dirfd(listing.get()), name.c_str(), below, true, false) && secured;
    }
    return secured;
}

} // namespace

bool SecureFileOrDirectory(const wxString& path, bool recursive)
{
    std::string bytes = ToUtf8(path);
    // A separator at the end would lead through a link.
    while (bytes.size() > 1 && bytes.back() == '/')
        bytes.pop_back();
    return SecureEntry(AT_FDCWD, bytes.c_str(), bytes, recursive, true);
}

} // namespace VelCore
