// LinkCheck.h: would an entry's way lead through a symbolic link that stands on the disk?
#pragma once

#include <optional>
#include <string>
#include <unordered_map>

#include "archive/EntryKind.h"
#include "archive/EntryPath.h"
#include "process/Descriptors.h"

namespace VelCore {

/// Looks at the folders below a destination as they are, each of them once.
///
/// Threads: one object, one thread.
class CLinkCheck
{
public:
    /// Opens the destination, links in its path followed; one that is missing holds no links.
    ///
    /// Errors: false, and one line of English in `reason`.
    bool Open(const std::string& destination, std::string& reason);

    /// Whether no link stands in place of a folder on the way, or of the entry itself when it is one.
    ///
    /// Errors: false, and one line of English in `reason`, also when the system does not let us look.
    bool IsClear(const EntryPath& path, EntryKind kind, std::string& reason);

private:
    enum class Found {
        Folder,
        Link,
        Nothing, // or something that has nothing below it, such as a file
        Unknown, // the system does not say
    };

    Found LookAt(const std::string& folder);

    CDescriptor m_destination;
    std::unordered_map<std::string, Found> m_known; // folders that exist, and the first missing one of a way
    std::string m_lastClear;                        // entries of one folder mostly stand together
};

} // namespace VelCore
