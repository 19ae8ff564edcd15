// The command line as the Lua table `arg`.
//
// Tested by: unit/agent/luahost/ArgLayoutTest.cpp.

#include "luahost/ArgLayout.h"

#include <algorithm>

#include <VelCore/Utf8.h>

std::vector<ScriptArgument> LayOutArguments(const std::vector<wxString>& words, const wxString& applicationName)
{
    const auto split = std::find(words.begin(), words.end(), wxString(L"--"));
    const auto zero = static_cast<int>(split - words.begin());

    std::vector<ScriptArgument> arguments;
    arguments.reserve(words.size() + 1);
    for (std::size_t i = 0; i < words.size(); ++i) {
        const int key = static_cast<int>(i) - zero;
        arguments.push_back({key, VelCore::ToUtf8(key == 0 ? applicationName : words[i])});
    }
    if (split == words.end())
        arguments.push_back({0, VelCore::ToUtf8(applicationName)});
    return arguments;
}
