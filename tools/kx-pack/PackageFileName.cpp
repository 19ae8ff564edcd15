// Tested by: unit/tools/kx-pack/PackageFileNameTest.cpp.

#include "PackageFileName.h"

#include <algorithm>
#include <cstddef>

#include <VelCore/Utf8.h>

#include "AgentVersion.h"
#include "packages/PackageName.h"

namespace {

const std::size_t kLongestName = 255; // bytes, in every file system that matters here
const std::size_t kDoneLength = sizeof(".done") - 1;

const char* const kDigits = "0123456789";
const char* const kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_+";
const char* const kDigitsAndDots = "0123456789.";

bool StartsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

bool IsVersion(const std::string& text)
{
    return std::count(text.begin(), text.end(), '.') == 2 && text.front() != '.' && text.back() != '.' &&
           text.find("..") == std::string::npos;
}

} // namespace

std::string AgentGateVersionText()
{
    using Gate = AgentGateVersion;
    return std::to_string(Gate::s_Major) + "." + std::to_string(Gate::s_Minor) + "." + std::to_string(Gate::s_Patch);
}

std::optional<Failure> ComposePackageName(const PackageNameParts& parts, std::string& fileName)
{
    // "-" separates the parts, and the last "." cuts off the suffix.
    const struct
    {
        const char* what;
        const std::string& text;
        const char* allowed;
        const char* described;
    } rows[] = {
        {"kind", parts.kind, kPlain, "letters, digits, '_' and '+'"},
        {"name", parts.plugin, kPlain, "letters, digits, '_' and '+'"},
        {"agent's version", parts.agentVersion, kDigitsAndDots, "digits and dots"},
        {"build number", parts.build, kDigits, "digits"},
        {"suffix", parts.suffix, kPlain, "letters, digits, '_' and '+'"},
    };
    for (const auto& row : rows) {
        if (row.text.empty() || row.text.find_first_not_of(row.allowed) != std::string::npos)
            return Failure{Status::Failed,
                           std::string("the ") + row.what + " '" + row.text + "' has to consist of " + row.described};
    }
    if (!IsVersion(parts.agentVersion))
        return Failure{Status::Failed, "the agent's version '" + parts.agentVersion + "' is not of the form 11.0.0"};
    fileName =
        parts.kind + "-" + parts.plugin + "-" + parts.agentVersion + "-" + parts.build + "." + parts.suffix + ".kxp";
    return std::nullopt;
}

std::string ExtensionOf(const std::string& fileName)
{
    const std::size_t dot = fileName.rfind('.');
    return dot == std::string::npos ? std::string() : fileName.substr(dot);
}

std::string WithExtension(const std::string& fileName, const std::string& extension)
{
    return fileName.substr(0, fileName.rfind('.')) + extension;
}

std::optional<std::string> WhyPassedOver(const std::string& fileName)
{
    if (StartsWith(fileName, "."))
        return "the agent does not look at hidden files";
    if (StartsWith(fileName, "Agent-Core") && ExtensionOf(fileName) == ".kxp")
        return "the agent deletes packages whose names begin with 'Agent-Core'";
    return std::nullopt;
}

bool HasRoomForDone(const std::string& fileName)
{
    return fileName.size() + kDoneLength <= kLongestName;
}

std::optional<Failure> CheckPackageName(const std::string& fileName)
{
    const auto refuse = [&fileName](const std::string& reason) {
        return Failure{Status::Refused, "'" + fileName + "' is no name for a package: " + reason};
    };
    if (const auto reason = WhyPassedOver(fileName))
        return refuse(*reason);
    if (!HasRoomForDone(fileName))
        return refuse("with '.done' behind it, it would be longer than " + std::to_string(kLongestName) + " bytes");
    if (!VersionAllows(VelCore::FromUtf8(WithExtension(fileName, std::string()))))
        return refuse("the agent's version, " + AgentGateVersionText() +
                      ", does not stand in front of the build number");
    return std::nullopt;
}
