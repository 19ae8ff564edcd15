// LuaArchive.h: what the commands for archives of Lua code share.
#pragma once

#include <optional>
#include <string>

#include "Command.h"
#include "Failure.h"

/// Packs the Lua files below the folder that is the first operand, and each further operand NAME=FILE under that name.
///
/// Errors: also a refusal of Lua code that the agent could not load.
std::optional<Failure> PackLua(const Arguments& arguments, std::string& archive);

/// The path that option -o gives; it has to be there, and to end in ".kxe".
std::optional<Failure> ExtensionPath(const Arguments& arguments, std::string& path);
