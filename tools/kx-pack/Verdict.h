// Verdict.h: what the agent would decide about a file, found out by the agent's own code.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Failure.h"

struct Verdict
{
    bool accepted = false;
    std::string consequence;        // to stand behind "accepted" or "refused"; may be empty
    std::vector<std::string> lines; // what the agent's log would say: "Warning: text"
};

// Each function takes the absolute path of a file that exists, and touches nothing beside it. The texts show this path.
// Errors: a Failure when nothing can be said.

/// A plug-in package: its name is judged and all of it unpacked, as into an empty folder.
std::optional<Failure> JudgePackage(const std::string& path, Verdict& verdict);

/// A removal marker: all names are vetted; the agent does not look at the data of its entries.
std::optional<Failure> JudgeMarker(const std::string& path, Verdict& verdict);

/// An extension: its version file is judged, and each module in it is loaded, though not run.
std::optional<Failure> JudgeExtensionFile(const std::string& path, Verdict& verdict);
