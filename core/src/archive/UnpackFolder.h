// UnpackFolder.h: files and folders are written below one folder, and nowhere else.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "archive/EntryPath.h"
#include "archive/NewFile.h"
#include "process/Descriptors.h"
#include "process/FileIdentity.h"

namespace VelCore {

/// The destination of an archive. It is opened, or created, for the first thing that is written; each way from there
/// is walked folder by folder, and a link in place of a folder ends it.
///
/// Threads: one object, one thread.
class CUnpackFolder
{
public:
    /// Remembers the destination; links in its path are followed.
    explicit CUnpackFolder(std::string destination);

    /// Removes what earlier runs that did not come to their end have left unfinished, in every folder below the
    /// destination. Links to folders are not followed.
    void RemoveLeftovers() const;

    /// Makes sure that the folder exists, with missing ones on the way (0755). The permissions are for a folder that
    /// this object made; one that was there before keeps its own. Those that would not let the owner write into the
    /// folder wait until Finish.
    ///
    /// Errors: false, and one line of English in `reason`.
    bool MakeFolder(const EntryPath& path, mode_t permissions, std::string& reason);

    /// Starts the file that is to be put in place as `path.name`. Missing folders on the way are made (0755).
    ///
    /// Ownership: the file needs this object, which must not be used for anything else before the file is in place.
    /// Errors:    nothing, and one line of English in `reason`.
    std::optional<CNewFile> StartFile(const EntryPath& path, std::string& reason);

    /// Removes the folders that were made for the file that was started last and could not be written. Only
    /// Finish may follow.
    void TakeBack();

    /// Sets the permissions that had to wait, and waits until everything is on the disk. Does nothing when nothing
    /// was written.
    ///
    /// Errors: false, and one line of English in `reason`.
    bool Finish(std::string& reason);

private:
    bool Enter(const std::string& folder, mode_t permissions, std::string& reason);
    bool Walk(const std::string& folder, mode_t permissions, std::string& reason);
    bool OpenDestination(std::string& reason);
    bool Descend(const std::string& part, mode_t permissions, std::string& reason);
    bool MakeMissing(const std::string& part, mode_t permissions, std::string& reason);
    std::string InCurrent(const std::string& part) const;
    bool Leave(std::string& reason);
    bool Arrive(std::string& reason);
    bool SetWaitingPermissions(std::string& reason);

    std::string m_destination;
    std::uint64_t m_fileNumber; // for temporary names

    CDescriptor m_top;         // the destination
    CDescriptor m_current;     // the folder that was entered last; entries of one folder mostly stand together
    std::string m_currentName; // below the destination
    FileIdentity m_currentIdentity;

    std::set<FileIdentity> m_made;                            // folders made by this object
    std::vector<std::string> m_madeLast;                      // those made on the last way
    std::map<std::string, mode_t> m_waitingPermissions;       // by folder
    std::vector<std::pair<dev_t, CDescriptor>> m_fileSystems; // written to; any folder on each
};

} // namespace VelCore
