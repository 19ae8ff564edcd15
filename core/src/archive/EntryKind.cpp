// Type and permission bits, as archives made on Unix carry them.
//
// Tested by: unit/core/archive/EntryKindTest.cpp.

#include "archive/EntryKind.h"

namespace VelCore {

namespace {

// The values in archives are these on every system.
const unsigned kTypeBits = 0170000;
const unsigned kFolderType = 0040000;
const unsigned kFileType = 0100000;

const unsigned kPermissionBits = 0777;

} // namespace

EntryKind KindOf(const ZipEntry& entry)
{
    const unsigned type = entry.UnixMode().value_or(0) & kTypeBits;
    if (type == kFolderType)
        return EntryKind::Folder;
    if (type != 0 && type != kFileType)
        return EntryKind::Special;
    return entry.IsDirectory() ? EntryKind::Folder : EntryKind::File;
}

mode_t PermissionsOf(const ZipEntry& entry)
{
    const auto mode = entry.UnixMode();
    if (mode)
        return *mode & kPermissionBits;
    return KindOf(entry) == EntryKind::Folder ? 0755 : 0644;
}

} // namespace VelCore
