// kx-pack extension: Lua code for the extension folder, and the version file without which it stays unused.
//
// Tested by: blackbox/test_kx_pack.py.

#include <limits>

#include <VelCore/Utf8.h>

#include "OutputFile.h"
#include "PackageFileName.h"
#include "commands/LuaArchive.h"
#include "packages/ExtensionGate.h"
#include "packages/VersionFile.h"

namespace {

// The content of the version file; the agent's own reader has the last word about its form.
std::optional<Failure> VersionText(const Arguments& arguments, std::string& text)
{
    const std::string version =
        arguments.Get("agent-version", AgentGateVersionText()) + "-" + arguments.Get("build", "1");
    if (version.find_first_not_of("0123456789.-") != std::string::npos || !ParseVersion(VelCore::FromUtf8(version)))
        return Failure{Status::Failed, "the version '" + version + "' is not of the form 11.0.0-1"};
    text = "version: " + version + "\n";
    return std::nullopt;
}

std::optional<Failure> BuildExtension(const Arguments& arguments)
{
    std::string path;
    if (auto failure = ExtensionPath(arguments, path))
        return failure;
    std::string version;
    if (auto failure = VersionText(arguments, version))
        return failure;
    std::string archive;
    if (auto failure = PackLua(arguments, archive))
        return failure;
    if (auto failure = WriteOutput(path, archive))
        return failure;
    return WriteOutput(VelCore::ToUtf8(VersionFileOf(VelCore::FromUtf8(path))), version);
}

Status Run(const Arguments& arguments)
{
    return Report(BuildExtension(arguments));
}

} // namespace

Command ExtensionCommand()
{
    return {"extension",
            "FOLDER [NAME=FILE...]",
            "builds an extension of the Lua code below FOLDER, with its version file",
            1,
            std::numeric_limits<std::size_t>::max(),
            {{"output", 'o', "FILE.kxe", "the extension; FILE.kxe.version is written beside it"},
             {"build", 'b', "NUMBER", "the extension's build number (1)"},
             {"agent-version", 0, "VERSION", "the agent's version that the extension is for (this one)"}},
            Run};
}
