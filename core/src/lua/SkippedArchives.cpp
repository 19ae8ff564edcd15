// The process's list of archives that are not searched.
//
// Tested by: unit/core/lua/ModuleIndexTest.cpp, blackbox/test_modules.py.

#include "lua/SkippedArchives.h"

#include <algorithm>
#include <mutex>

#include <VelCore/SkippedArchives.h>
#include <VelCore/Utf8.h>

namespace VelCore {
namespace {

using Archives = std::vector<std::pair<std::string, std::string>>;

// Alive as long as the process: a thread may still be asking while it ends.
std::mutex& g_mutex = *new std::mutex;
Archives& g_skipped = *new Archives;

} // namespace

void NoteSkippedArchive(const wxString& path, const wxString& reason)
{
    const std::string name = ToUtf8(path);
    const std::lock_guard lock(g_mutex);
    const auto known = std::find_if(g_skipped.begin(), g_skipped.end(),
                                    [&name](const Archives::value_type& archive) { return archive.first == name; });
    if (known == g_skipped.end())
        g_skipped.emplace_back(name, ToUtf8(reason));
    else
        known->second = ToUtf8(reason);
}

Archives SkippedArchives()
{
    const std::lock_guard lock(g_mutex);
    return g_skipped;
}

} // namespace VelCore
