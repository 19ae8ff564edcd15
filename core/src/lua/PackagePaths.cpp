// The search paths of `require`.
//
// Tested by: unit/core/lua/PackagePathsTest.cpp.

#include "lua/PackagePaths.h"

#include <algorithm>

namespace VelCore {
namespace {

void Append(std::string& list, const std::string& entry)
{
    if (entry.empty())
        return;
    if (!list.empty())
        list += ';';
    list += entry;
}

// What the working directory holds is anybody's; a program that runs as root must not load it.
std::string AbsoluteEntries(const std::string& list)
{
    std::string absolute;
    for (std::size_t start = 0; start < list.size();) {
        const std::size_t end = std::min(list.find(';', start), list.size());
        if (list[start] == '/')
            Append(absolute, list.substr(start, end - start));
        start = end + 1;
    }
    return absolute;
}

std::string Join(const std::string& first, const std::string& own, const std::string& builtIn)
{
    std::string list = first;
    Append(list, own);
    Append(list, AbsoluteEntries(builtIn));
    return list;
}

} // namespace

std::string ModulePath(const std::string& bin, const std::string& path, const std::string& builtIn)
{
    return Join(path, bin + "/?.lua;" + bin + "/?/init.lua", builtIn);
}

std::string CModulePath(const std::string& bin, const std::string& cpath, const std::string& builtIn)
{
    return Join(cpath, bin + "/lib/?.so", builtIn);
}

} // namespace VelCore
