// PluginTemplate.h: the plug-in that authors begin with.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Failure.h"

/// A file of the new plug-in.
struct TemplateFile
{
    std::string name; // relative to the plug-in's folder
    std::string content;
};

/// The name of the plug-in's module of rules: lower case.
std::string ModuleNameOf(const std::string& plugin);

/// A working plug-in: a module of rules for the integrity monitor below `files`, and a page for the author.
///
/// Errors: a Failure (wrong usage) when the name could not be part of a module's and a package's name: it has to begin
///         with a letter, and to consist of letters, digits and "_".
std::optional<Failure> MakePlugin(const std::string& plugin, std::vector<TemplateFile>& files);
