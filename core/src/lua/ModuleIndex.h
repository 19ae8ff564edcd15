// ModuleIndex.h: which archive holds which Lua module.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace VelCore {

class CZipArchive;
struct ZipEntry;

/// A module found in an archive. Valid as long as the archive.
struct ArchivedModule
{
    const CZipArchive* archive;
    const ZipEntry* entry;
};

using ModuleMap = std::unordered_map<std::string_view, ArchivedModule>;

/// One archive of a search list, or why it is left out.
struct SearchedArchive
{
    std::string path;
    std::string reason; // empty: the archive is readable
    std::shared_ptr<const CZipArchive> archive;
    ModuleMap modules; // keys are parts of the entries' names
};

/// The modules of one archive, by the path that a module name stands for (`a/b` for module `a.b`): entry `a/b.lua`,
/// else `a/b/init.lua`; of entries of the same name the last one.
ModuleMap ModulesOf(const CZipArchive& archive);

/// The modules of a list of archives; the first archive that holds a module wins. A look-up does not depend on the
/// number of archives.
///
/// Archives are opened once per process and stay open, so one that is replaced on disk does not disturb those who use
/// it. One that cannot be read is an error-level record, once.
///
/// Threads: a finished index is only read, so any.
class CModuleIndex
{
public:
    /// zippath  absolute paths, separated by ";"
    explicit CModuleIndex(const std::string& zippath);

    /// The module, or null.
    ///
    /// path  the module's name with "/" for "."
    const ArchivedModule* Find(std::string_view path) const;

    /// One line per archive, those that were left out of the list included, each beginning with a line feed and a
    /// tabulator, for the message of a failed `require`.
    std::string NotFoundText(std::string_view module) const;

    /// The last part of the name of every module directly below, sorted bytewise: "c" for module `a.b.c`.
    ///
    /// path  the name of what they are below, with "/" for "."; empty for the modules without a dot
    std::vector<std::string> NamesBelow(const std::string& path) const;

private:
    bool IsSearched(const std::string& path) const;

    std::vector<std::shared_ptr<const SearchedArchive>> m_archives;
    ModuleMap m_modules;
};

} // namespace VelCore
