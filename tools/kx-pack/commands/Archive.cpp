// kx-pack archive: Lua code that is named to the agent one by one.
//
// Tested by: blackbox/test_kx_pack.py, blackbox/test_archives.py.

#include <limits>

#include "OutputFile.h"
#include "commands/LuaArchive.h"

namespace {

std::optional<Failure> BuildArchive(const Arguments& arguments)
{
    std::string path;
    if (auto failure = ExtensionPath(arguments, path))
        return failure;
    std::string archive;
    if (auto failure = PackLua(arguments, archive))
        return failure;
    return WriteOutput(path, archive);
}

Status Run(const Arguments& arguments)
{
    return Report(BuildArchive(arguments));
}

} // namespace

Command ArchiveCommand()
{
    return {"archive",
            "FOLDER [NAME=FILE...]",
            "builds an archive of the Lua code below FOLDER, for an application of its own or --zippath",
            1,
            std::numeric_limits<std::size_t>::max(),
            {{"output", 'o', "FILE.kxe", "the archive"}},
            Run};
}
