// kx-pack new: a plug-in to begin with.
//
// Tested by: blackbox/test_kx_pack.py.

#include <filesystem>
#include <system_error>

#include "Command.h"
#include "OutputFile.h"
#include "PluginTemplate.h"

namespace fs = std::filesystem;

namespace {

Failure CannotMake(const fs::path& folder, const std::string& reason)
{
    return {Status::Failed, "cannot make '" + folder.string() + "': " + reason};
}

std::optional<Failure> WriteFile(const fs::path& path, const std::string& content)
{
    std::error_code error;
    fs::create_directories(path.parent_path(), error);
    if (error)
        return CannotMake(path.parent_path(), error.message());
    return WriteOutput(path.string(), content);
}

std::optional<Failure> MakeFolder(const Arguments& arguments)
{
    const std::string& plugin = arguments.operands.front();
    const fs::path folder = arguments.operands.back(); // the name again when no folder is given
    std::vector<TemplateFile> files;
    if (auto failure = MakePlugin(plugin, files))
        return failure;

    // What is there already is somebody's work.
    std::error_code error;
    const bool isNew = fs::create_directory(folder, error);
    if (error || !isNew)
        return CannotMake(folder, error ? error.message() : "it is there already");
    for (const TemplateFile& file : files) {
        if (auto failure = WriteFile(folder / file.name, file.content))
            return failure;
    }
    PrintLine((folder / files.front().name).string());
    return std::nullopt;
}

Status Run(const Arguments& arguments)
{
    return Report(MakeFolder(arguments));
}

} // namespace

Command NewCommand()
{
    return {"new", "NAME [FOLDER]", "makes a folder with a working plug-in to begin with", 1, 2, {}, Run};
}
