// FileNames.h: names of files on their way through the framework.
#pragma once

namespace VelCore {

/// Makes the framework treat file names as UTF-8 in every locale, and keep the bytes of names that are not (see
/// Utf8.h): the names on disk do not change with the locale that a program happens to be started in.
///
/// Call it before the framework handles its first name.
void UseUtf8FileNames();

} // namespace VelCore
