// EntryPath.h: where may an entry of a foreign archive go?
#pragma once

#include <string>

namespace VelCore {

/// A place below a destination, in the one spelling that nothing can be read into: no "." or "..", no empty parts.
struct EntryPath
{
    std::string folder; // "a/b"; empty: the destination
    std::string name;   // the last part; empty: the destination itself

    /// Both together: "a/b/name".
    std::string Whole() const;
};

/// Vets the raw name of an entry and splits it.
///
/// Refused:  absolute names, any "..", any backslash, a drive letter, names that no system call would take (a part of
///           more than 255 bytes, more than 4095 in all), names that end in "." (a folder's, but without the "/" that
///           marks one), and names that our unfinished files have. Refused also where the way would end inside.
/// Accepted: every other byte, UTF-8 or not; a "/" at the end, "." and empty parts, which mean nothing.
/// Errors:   false, and one line of English in `reason`, without the name.
/// Source:   NAME_MAX and PATH_MAX of Linux; names are vetted alike everywhere.
bool ParseEntryPath(const std::string& entryName, EntryPath& path, std::string& reason);

} // namespace VelCore
