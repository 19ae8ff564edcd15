// Pack.h: files become an archive.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Failure.h"
#include "SourceTree.h"

/// Looks at a file before it is packed; a Failure stops the packing.
using ContentCheck = std::function<std::optional<Failure>(const SourceFile& file, const std::string& content)>;

/// Packs the files in the order of their names, whatever order they come in. A file that its owner may execute gets
/// mode 0755, every other one 0644.
///
/// Errors: a Failure that names the file: two files of one name, a name that the agent would refuse, a file that is no
///         regular one or cannot be read.
std::optional<Failure> PackFiles(std::vector<SourceFile> files, const ContentCheck& check, std::string& archive);
