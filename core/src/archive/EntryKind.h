// EntryKind.h: what is an entry to become on disk?
#pragma once

#include <sys/types.h>

#include "archive/ZipFormat.h"

namespace VelCore {

enum class EntryKind {
    File,
    Folder,
    Special, // a symbolic link, fifo, device or socket: never created
};

/// The kind by the type that the archive carries, else by the name: one that ends with "/" is a folder's. A type of
/// file does not outdo such a name, since no file can have it.
EntryKind KindOf(const ZipEntry& entry);

/// The permission bits that the archive carries, without set-user-id, set-group-id and sticky bits; 0755 for a folder
/// and 0644 for a file when it carries none.
mode_t PermissionsOf(const ZipEntry& entry);

} // namespace VelCore
