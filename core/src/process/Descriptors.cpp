// Descriptors with an owner, whole writes and whole paths.
//
// Tested by: unit/core/process/DescriptorsTest.cpp.

#include "process/Descriptors.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VelCore {

bool CDescriptor::Close()
{
    const int descriptor = Release();
    return descriptor < 0 || close(descriptor) == 0;
}

CDescriptor OpenAt(int folder, const char* name, int flags, mode_t mode)
{
    int descriptor = -1;
    do {
        descriptor = openat(folder, name, flags | O_CLOEXEC | O_NOCTTY, mode);
    } while (descriptor < 0 && errno == EINTR);
    return CDescriptor(descriptor);
}

std::size_t WriteAll(int descriptor, std::string_view bytes)
{
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t part = write(descriptor, bytes.data() + written, bytes.size() - written);
        if (part > 0) {
            written += static_cast<std::size_t>(part);
        } else if (part == 0) {
            errno = EIO; // no progress and no reason: do not try for ever
            break;
        } else if (errno != EINTR) {
            break;
        }
    }
    return written;
}

bool MakeFolders(const std::string& path, mode_t mode)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0) {
        errno = ENOTDIR;
        return S_ISDIR(status.st_mode);
    }
    const std::size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !MakeFolders(path.substr(0, slash), mode))
        return false;
    if (mkdir(path.c_str(), mode) == 0)
        return chmod(path.c_str(), mode) == 0;
    if (errno != EEXIST)
        return false;
    // Somebody else has just made it, or something that is no folder stands there.
    if (stat(path.c_str(), &status) != 0)
        return false;
    errno = ENOTDIR;
    return S_ISDIR(status.st_mode);
}

std::string DescribeError(const std::string& what, int errorNumber)
{
    return what + ": " + std::generic_category().message(errorNumber);
}

} // namespace VelCore
