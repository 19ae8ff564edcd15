// kx-pack removal: the marker that takes the files of a package away again.
//
// Tested by: blackbox/test_kx_pack.py.

#include <filesystem>
#include <set>

#include <sys/stat.h>

#include "Command.h"
#include "OutputFile.h"
#include "PackageFileName.h"
#include "ZipWriter.h"
#include "archive/EntryPath.h"
#include "archive/ZipArchive.h"

namespace {

const unsigned kMode = 0644;

// Folders stay, since others may use them; links and the like were never made.
bool IsInstalledFile(const VelCore::ZipEntry& entry)
{
    const unsigned type = entry.UnixMode().value_or(0) & S_IFMT;
    return !entry.IsDirectory() && (type == 0 || S_ISREG(type));
}

std::string MarkerName(const std::string& package)
{
    const std::string name = std::filesystem::path(package).filename().string();
    return WithExtension(ExtensionOf(name) == ".done" ? WithExtension(name, std::string()) : name, ".kxu");
}

Failure CannotList(const std::string& name, const std::string& package, const std::string& reason)
{
    return {Status::Refused, "'" + name + "' of '" + package + "' cannot be listed: " + reason};
}

std::optional<Failure> ListFiles(const std::string& package, std::string& marker)
{
    std::string reason;
    const auto archive = VelCore::CZipArchive::Open(package, reason);
    if (!archive)
        return Failure{Status::Failed, "cannot read '" + package + "': " + reason};
    std::set<std::string> names;
    for (const VelCore::ZipEntry& entry : archive->Entries()) {
        if (IsInstalledFile(entry))
            names.insert(entry.name);
    }
    CZipWriter writer;
    VelCore::EntryPath place;
    for (const std::string& name : names) {
        if (!VelCore::ParseEntryPath(name, place, reason) || !writer.Add(name, kMode, std::string(), reason))
            return CannotList(name, package, reason);
    }
    marker = writer.Finish();
    return std::nullopt;
}

std::optional<Failure> BuildMarker(const Arguments& arguments)
{
    const std::string& package = arguments.operands.front();
    const std::string path = OutputPath(arguments.Get("output"), MarkerName(package));
    const std::string fileName = std::filesystem::path(path).filename().string();
    if (ExtensionOf(fileName) != ".kxu")
        return Failure{Status::Failed, "'" + path + "' is neither a folder nor a name that ends in .kxu"};
    if (const auto reason = WhyPassedOver(fileName))
        return Failure{Status::Refused, "'" + fileName + "' is no name for a removal marker: " + *reason};
    std::string marker;
    if (auto failure = ListFiles(package, marker))
        return failure;
    if (auto failure = WriteOutput(path, marker))
        return failure;
    if (path != arguments.Get("output")) // who named it knows it
        PrintLine(path);
    return std::nullopt;
}

Status Run(const Arguments& arguments)
{
    return Report(BuildMarker(arguments));
}

} // namespace

Command RemovalCommand()
{
    return {"removal",
            "PACKAGE.kxp",
            "builds the removal marker (.kxu) that deletes the files of a package; also of a .kxp.done",
            1,
            1,
            {{"output", 'o', "OUT", "a folder for the marker, or its path"}},
            Run};
}
