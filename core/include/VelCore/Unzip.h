// Unzip.h: the entries of an archive become files, and only where they may.
#pragma once

class wxFileName;
class wxString;
class wxZipEntry;

namespace VelCore {

/// Walks an archive and unpacks the entries that the callback wants.
///
/// The callback is called once per entry, folders and special entries included, in the archive's order, with the path
/// below `destination` that the entry has there (no separator at its end). When it answers true the entry is unpacked
/// before the walk goes on; when it answers false the entry's data is not even looked at. It is called with
/// `context`, and never without an entry. Of the entry, the name, the size and the permission bits are set.
///
/// An archive is refused as a whole, before the first call, when the name of any entry could lead elsewhere: an
/// absolute name, "..", a backslash, a drive letter, or a symbolic link that stands on the way. The way begins below
/// the destination, which may itself be reached through links.
///
/// A file appears under its name when it is complete and its checksum is right, in one step; what had the name before,
/// a link, a fifo or a running program as well, is replaced and never written to. Missing folders are created,
/// the destination among them. Permission bits are those of the entry whatever the umask (0644 and 0755 when it has
/// none), without set-user-id, set-group-id and sticky bits; a folder that was there before keeps its own. Links and
/// other special entries are left out with a warning. See docs/CORE.md, "Archives on disk".
///
/// What earlier runs have left unfinished below the destination is removed first, see RemoveUnfinished.
///
/// Errors:  false, after an error-level record with the archive, the entry and the reason, when the archive cannot be
///          read or is refused, or at the first entry that is damaged or cannot be written. The entries before it stay.
///          True means that the archive was read to its end and that everything is on the disk.
/// Threads: any, also in several processes for one destination; the callback runs on the calling thread.
bool Unzip(const wxFileName& archive, const wxFileName& destination,
           bool (*callback)(void* context, const wxZipEntry* entry, const wxString* target), void* context);

/// Removes the files below `destination` that runs of Unzip have left unfinished because they did not come to their
/// end. Those that a living process is writing stay. Links to folders are not followed.
///
/// Errors:  a warning for each file that cannot be removed, and each folder that cannot be listed.
/// Threads: any, also in several processes.
void RemoveUnfinished(const wxFileName& destination);

} // namespace VelCore
