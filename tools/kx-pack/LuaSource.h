// LuaSource.h: Lua code on its way into an archive.
#pragma once

#include <optional>
#include <string>

#include "Failure.h"

/// Whether the agent can load this text: it compiles, and is not precompiled.
///
/// path  as the message shall show it
///
/// Errors: a refusal with Lua's own message.
std::optional<Failure> CheckLuaText(const std::string& text, const std::string& path);
