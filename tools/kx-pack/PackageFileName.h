// PackageFileName.h: names of files that the agent will look at.
#pragma once

#include <optional>
#include <string>

#include "Failure.h"

/// What the name of a plug-in package is made of: KIND-NAME-VERSION-BUILD.SUFFIX.kxp.
struct PackageNameParts
{
    std::string kind;
    std::string plugin;
    std::string agentVersion; // major.minor.patch of the agent that the plug-in is for
    std::string build;
    std::string suffix;
};

/// The version that this agent accepts: "11.0.0".
std::string AgentGateVersionText();

/// Errors: a Failure (wrong usage) that names the part that would break the name into other pieces.
std::optional<Failure> ComposePackageName(const PackageNameParts& parts, std::string& fileName);

/// The end of a file name from its last "." on; empty when there is none.
std::string ExtensionOf(const std::string& fileName);

/// `fileName` with `extension` in the place of its own.
std::string WithExtension(const std::string& fileName, const std::string& extension);

/// Why the agent does not take up a file of this name at all, whatever is in it; nothing when it does. One line without
/// a full stop, to stand behind the name and "it": packages, removal markers and extensions may not be hidden, and
/// packages are deleted when their names begin with "Agent-Core".
std::optional<std::string> WhyPassedOver(const std::string& fileName);

/// Whether there is room for the ".done" that the agent puts behind the name of a package that it has installed.
bool HasRoomForDone(const std::string& fileName);

/// Whether the agent installs packages of this name, and can give them the name of an installed one afterwards.
///
/// Errors: a refusal.
std::optional<Failure> CheckPackageName(const std::string& fileName);
