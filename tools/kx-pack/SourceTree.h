// SourceTree.h: the files that go into an archive.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Failure.h"

/// A file or an empty folder, and what it shall be called in the archive.
struct SourceFile
{
    std::string name; // with "/" between its parts, and at the end of a folder's
    std::string path;
    bool mayBeLink = false; // somebody has named the path, and means what it leads to

    bool IsFolder() const { return !name.empty() && name.back() == '/'; }
};

/// All regular files and empty folders below a folder, under their names relative to it, hidden ones included. Other
/// folders are not listed: the agent makes those that it needs.
///
/// Shape:  in no order.
/// Errors: a Failure that names the file: a link, and anything else that is neither file nor folder, is refused, as the
///         agent would not create it.
std::optional<Failure> FindFiles(const std::string& folder, std::vector<SourceFile>& files);
