// kx-pack plugin: a folder becomes a plug-in package.
//
// Tested by: blackbox/test_kx_pack.py.

#include <filesystem>
#include <system_error>

#include "Command.h"
#include "OutputFile.h"
#include "Pack.h"
#include "PackageFileName.h"
#include "SourceTree.h"

namespace {

const char* const kNaming[] = {"kind", "name", "agent-version", "build", "suffix"};

bool NamesTheFile(const std::string& output)
{
    std::error_code error;
    return ExtensionOf(output) == ".kxp" && !std::filesystem::is_directory(output, error);
}

// Where to write: the path that -o gives, or a name made of the naming options.
std::optional<Failure> ChooseOutput(const Arguments& arguments, std::string& path)
{
    const std::string output = arguments.Get("output");
    std::string fileName;
    if (NamesTheFile(output)) {
        for (const char* option : kNaming) {
            if (arguments.Has(option))
                return Failure{Status::Failed, std::string("--") + option + " is of no use beside -o '" + output + "'"};
        }
        fileName = std::filesystem::path(output).filename().string();
        path = output;
        return CheckPackageName(fileName);
    }
    if (!arguments.Has("name"))
        return Failure{Status::Failed, "the plug-in needs a name: --name NAME, or -o FILE.kxp"};
    const PackageNameParts parts = {arguments.Get("kind", "Feature"), arguments.Get("name"),
                                    arguments.Get("agent-version", AgentGateVersionText()), arguments.Get("build", "1"),
                                    arguments.Get("suffix", "any")};
    if (auto failure = ComposePackageName(parts, fileName))
        return failure;
    path = OutputPath(output, fileName);
    if (path == output)
        return Failure{Status::Failed, "'" + output + "' is neither a folder nor a name that ends in .kxp"};
    return parts.agentVersion == AgentGateVersionText() ? CheckPackageName(fileName) : std::nullopt;
}

std::optional<Failure> NoCheck(const SourceFile&, const std::string&)
{
    return std::nullopt;
}

std::optional<Failure> BuildPackage(const Arguments& arguments)
{
    std::string path;
    if (auto failure = ChooseOutput(arguments, path))
        return failure;
    const std::string& folder = arguments.operands.front();
    std::vector<SourceFile> files;
    if (auto failure = FindFiles(folder, files))
        return failure;
    if (files.empty())
        return Failure{Status::Refused, "'" + folder + "' is empty: a package needs files"};
    std::string archive;
    if (auto failure = PackFiles(files, NoCheck, archive))
        return failure;
    if (auto failure = WriteOutput(path, archive))
        return failure;
    if (path != arguments.Get("output")) // who named it knows it
        PrintLine(path);
    return std::nullopt;
}

Status Run(const Arguments& arguments)
{
    return Report(BuildPackage(arguments));
}

} // namespace

Command PluginCommand()
{
    return {"plugin",
            "FOLDER",
            "builds a plug-in package (.kxp) of the files below FOLDER",
            1,
            1,
            {{"output", 'o', "OUT", "a folder for the package, or its path if it ends in .kxp"},
             {"name", 'n', "NAME", "the plug-in's name"},
             {"build", 'b', "NUMBER", "the plug-in's build number (1)"},
             {"kind", 0, "KIND", "what the package's name begins with (Feature)"},
             {"suffix", 0, "SUFFIX", "the processor, or whatever tells builds apart (any)"},
             {"agent-version", 0, "VERSION", "the agent's version that the plug-in is for (this one)"}},
            Run};
}
