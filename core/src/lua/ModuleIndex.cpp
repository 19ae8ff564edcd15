// One hash table over the modules of all archives.
//
// Tested by: unit/core/lua/ModuleIndexTest.cpp, blackbox/test_modules.py.

#include "lua/ModuleIndex.h"

#include <algorithm>
#include <map>
#include <mutex>

#include <sys/stat.h>

#include <wx/log.h>

#include <VelCore/Utf8.h>

#include "archive/ZipArchive.h"
#include "lua/SkippedArchives.h"
#include "trace/RecordText.h"

namespace VelCore {
namespace {

const std::string_view kSuffix = ".lua";
const std::string_view kInit = "/init";

// The names of files in these lines may hold anything; none may look like a line of its own.
std::string TriedLine(std::string_view module, const std::string& path)
{
    return "\n\tno module '" + std::string(module) + "' in archive '" + EscapeControls(path) + "'";
}

std::string SkippedLine(const std::string& path, const std::string& reason)
{
    return "\n\tarchive '" + EscapeControls(path) + "' skipped: " + reason;
}

bool EndsWith(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// Links and other special entries hold no code.
bool IsRegular(const ZipEntry& entry)
{
    const auto mode = entry.UnixMode();
    return !mode || (*mode & S_IFMT) == 0 || S_ISREG(*mode);
}

// Opens an archive the first time it is asked for, and remembers the answer for the life of the process.
std::shared_ptr<const SearchedArchive> OpenOnce(const std::string& path)
{
    static std::mutex& mutex = *new std::mutex;
    static auto& known = *new std::map<std::string, std::shared_ptr<const SearchedArchive>>;

    const std::lock_guard lock(mutex);
    std::shared_ptr<const SearchedArchive>& entry = known[path];
    if (entry)
        return entry;

    auto searched = std::make_shared<SearchedArchive>();
    searched->path = path;
    searched->archive = CZipArchive::Open(path, searched->reason);
    if (searched->archive)
        searched->modules = ModulesOf(*searched->archive);
    else
        wxLogError(L"Archive '%s' cannot be searched for modules: %s", FromUtf8(path), FromUtf8(searched->reason));
    entry = searched;
    return entry;
}

} // namespace

ModuleMap ModulesOf(const CZipArchive& archive)
{
    ModuleMap modules;
    ModuleMap packages;
    for (const ZipEntry& entry : archive.Entries()) {
        std::string_view name = entry.name;
        if (!EndsWith(name, kSuffix) || !IsRegular(entry))
            continue;
        name.remove_suffix(kSuffix.size());
        modules.insert_or_assign(name, ArchivedModule{&archive, &entry});
        if (EndsWith(name, kInit)) {
            name.remove_suffix(kInit.size());
            packages.insert_or_assign(name, ArchivedModule{&archive, &entry});
        }
    }
    modules.merge(packages); // keeps what is there: a/b.lua goes before a/b/init.lua
    return modules;
}

CModuleIndex::CModuleIndex(const std::string& zippath)
{
    for (std::size_t start = 0; start < zippath.size();) {
        const std::size_t end = std::min(zippath.find(';', start), zippath.size());
        if (end > start)
            m_archives.push_back(OpenOnce(zippath.substr(start, end - start)));
        start = end + 1;
    }
    for (const auto& searched : m_archives)
        m_modules.insert(searched->modules.begin(), searched->modules.end());
}

const ArchivedModule* CModuleIndex::Find(std::string_view path) const
{
    const auto found = m_modules.find(path);
    return found == m_modules.end() ? nullptr : &found->second;
}

std::string CModuleIndex::NotFoundText(std::string_view module) const
{
    std::string text;
    for (const auto& searched : m_archives) {
        text.append(searched->reason.empty() ? TriedLine(module, searched->path)
                                             : SkippedLine(searched->path, searched->reason));
    }
    for (const auto& [path, reason] : SkippedArchives()) {
        if (!IsSearched(path))
            text.append(SkippedLine(path, reason));
    }
    return text;
}

bool CModuleIndex::IsSearched(const std::string& path) const
{
    return std::any_of(m_archives.begin(), m_archives.end(),
                       [&path](const auto& searched) { return searched->path == path; });
}

std::vector<std::string> CModuleIndex::NamesBelow(const std::string& path) const
{
    const std::string start = path.empty() ? path : path + "/";
    std::vector<std::string> names;
    for (const auto& [modulePath, module] : m_modules) {
        if (modulePath.substr(0, start.size()) != start)
            continue;
        const std::string_view name = modulePath.substr(start.size());
        // A name with a dot in it stands for another path, so `require` does not come here for it.
        if (!name.empty() && name.find_first_of("/.") == std::string_view::npos)
            names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace VelCore
