// OutputFile.h: files that appear whole or not at all.
#pragma once

#include <optional>
#include <string>

#include "Failure.h"

/// Creates or replaces a file in one step: it is written under another name beside it, then renamed. A link in its
/// place is replaced, not followed; anything else that is no regular file is refused.
///
/// Shape:  mode 0666 less the umask.
/// Errors: a Failure that names the file; what was there before is then untouched.
std::optional<Failure> WriteOutput(const std::string& path, const std::string& content);
