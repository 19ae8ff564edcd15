// Systems without a call for a whole file system: each file and folder by itself.

#include "archive/SyncFileSystem.h"

#include <unistd.h>

namespace VelCore {

bool SyncWritten(int descriptor)
{
    return fsync(descriptor) == 0;
}

bool SyncFileSystem(int)
{
    return true;
}

} // namespace VelCore
