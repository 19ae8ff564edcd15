#include "process/FileIdentity.h"

#include <sys/stat.h>

namespace VelCore {

FileIdentity IdentifyPath(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? FileIdentity(status.st_dev, status.st_ino) : FileIdentity();
}

FileIdentity IdentifyDescriptor(int descriptor)
{
    struct stat status = {};
    return fstat(descriptor, &status) == 0 ? FileIdentity(status.st_dev, status.st_ino) : FileIdentity();
}

} // namespace VelCore
