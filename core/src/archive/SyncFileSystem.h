// SyncFileSystem.h: many new files reach the disk, at the price of one where the system can.
#pragma once

namespace VelCore {

/// For every file and folder that was written, before it is left. Where `SyncFileSystem` reaches everything this does
/// nothing, else it waits until the content is on the disk.
///
/// Errors: false; errno names it.
bool SyncWritten(int descriptor);

/// Once at the end, for each file system that was written to; `folder` is any folder on it. Afterwards everything
/// that was given to `SyncWritten` is on the disk, under its name.
///
/// Errors: false; errno names it.
bool SyncFileSystem(int folder);

} // namespace VelCore
