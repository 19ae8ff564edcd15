// PackagePaths.h: the search paths of `require`.
#pragma once

#include <string>

namespace VelCore {

/// `package.path`: `path` (if not empty), the Lua files in `bin`, then the absolute entries of `builtIn`.
std::string ModulePath(const std::string& bin, const std::string& path, const std::string& builtIn);

/// `package.cpath`: `cpath` (if not empty), the shared objects in `<bin>/lib`, then the absolute entries of `builtIn`.
std::string CModulePath(const std::string& bin, const std::string& cpath, const std::string& builtIn);

} // namespace VelCore
