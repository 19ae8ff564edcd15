// What the commands for archives of Lua code share.

#include "commands/LuaArchive.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>

#include "LuaSource.h"
#include "Pack.h"
#include "PackageFileName.h"
#include "SourceTree.h"

namespace {

bool IsLua(const std::string& name)
{
    return ExtensionOf(name) == ".lua";
}

std::optional<Failure> CheckLua(const SourceFile& file, const std::string& content)
{
    return IsLua(file.name) ? CheckLuaText(content, file.path) : std::nullopt;
}

std::optional<Failure> AddFurther(const Arguments& arguments, std::vector<SourceFile>& files)
{
    for (std::size_t at = 1; at < arguments.operands.size(); ++at) {
        const std::string& operand = arguments.operands[at];
        const std::size_t equals = operand.find('=');
        if (equals == std::string::npos || equals == 0 || equals + 1 == operand.size())
            return Failure{Status::Failed, "'" + operand + "' is not of the form NAME=FILE"};
        files.push_back({operand.substr(0, equals), operand.substr(equals + 1), true});
    }
    return std::nullopt;
}

} // namespace

std::optional<Failure> PackLua(const Arguments& arguments, std::string& archive)
{
    const std::string& folder = arguments.operands.front();
    std::vector<SourceFile> files;
    if (auto failure = FindFiles(folder, files))
        return failure;
    files.erase(std::remove_if(files.begin(), files.end(), [](const SourceFile& file) { return !IsLua(file.name); }),
                files.end());
    if (files.empty())
        return Failure{Status::Refused, "'" + folder + "' holds no Lua files"};
    if (auto failure = AddFurther(arguments, files))
        return failure;
    return PackFiles(files, CheckLua, archive);
}

std::optional<Failure> ExtensionPath(const Arguments& arguments, std::string& path)
{
    path = arguments.Get("output");
    const std::string fileName = std::filesystem::path(path).filename().string();
    if (ExtensionOf(fileName) != ".kxe")
        return Failure{Status::Failed, "the archive needs a name that ends in .kxe: -o FILE.kxe"};
    if (const auto reason = WhyPassedOver(fileName))
        return Failure{Status::Refused, "'" + fileName + "' is no name for an extension: " + *reason};
    return std::nullopt;
}
