// NewFile.h: a file that appears under its name when it is complete, and not before.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "process/Descriptors.h"

namespace VelCore {

/// An unfinished file, which stands beside its place under a temporary name. It is locked while it lives, which tells
/// it from the ones that a crash has left (see RemoveLeftovers). What is not put in place is removed.
///
/// Ownership: `folder`, a descriptor, must outlive it.
/// Threads:   one object, one thread; any number of processes may write into one folder.
class CNewFile
{
public:
    /// Starts a file in `folder`, readable for its owner alone. `number` chooses the temporary name and is counted up
    /// for each that is taken; begin with a random one.
    ///
    /// Errors: nothing, and one line of English in `reason`.
    static std::optional<CNewFile> Create(int folder, std::uint64_t& number, std::string& reason);

    CNewFile(CNewFile&& other) noexcept = default;
    CNewFile& operator=(CNewFile&& other) = delete;
    ~CNewFile();

    /// Appends.
    ///
    /// Errors: false, and one line of English in `reason`.
    bool Write(std::string_view bytes, std::string& reason);

    /// Gives the file its permissions, whatever the umask, and its name, and ends the object's work. Whatever had the
    /// name is replaced, unless it is a folder.
    ///
    /// Errors: false, and one line of English in `reason`; what had the name is unchanged.
    bool PutInPlace(const std::string& name, mode_t permissions, std::string& reason);

private:
    CNewFile(int folder, CDescriptor descriptor, std::string temporaryName);

    bool Lock() const;
    bool Finish(mode_t permissions) const;

    int m_folder;
    CDescriptor m_descriptor; // none: in place, or moved from
    std::string m_temporaryName;
};

/// Removes the unfinished files that a crash or a power cut left in `folder`, a descriptor. Only regular files of the
/// effective user that nobody is writing count as such. Returns the names of the folders in it.
///
/// Errors: a warning for each that cannot be removed.
std::vector<std::string> RemoveLeftovers(int folder);

} // namespace VelCore
