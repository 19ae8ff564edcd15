// Requires.h: the same modules, whoever finds them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct lua_State;

namespace VelBench {

/// The parts of a text between separators.
std::vector<std::string> Split(const std::string& text, char separator);

/// The content of a small file; ends the program when it cannot be read.
std::string ReadText(const std::string& path);

/// Lua text: requires every module of the list that is its first argument.
extern const char* const kRequireAll;

/// Pushes the lines of a file as a list.
void PushLines(lua_State* L, const std::string& path);

/// For a searcher: the file that the module named by its first argument has in an archive, in `buffer`.
const std::string& FileOf(lua_State* L, std::string& buffer);

/// For a searcher: compiles what it has found, and gives its result.
int Load(lua_State* L, const char* text, std::size_t size, const std::string& chunkName);

/// Makes a state with Lua's libraries and its own `require`, which has this searcher (a closure with one light
/// userdata) right behind the one for preloaded modules, and requires the modules whose names stand in a file.
void RequireAll(int (*searcher)(lua_State*), void* context, const std::string& namesPath);

} // namespace VelBench
