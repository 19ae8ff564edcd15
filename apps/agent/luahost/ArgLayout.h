// ArgLayout.h: the command line as the Lua table `arg`.
#pragma once

#include <string>
#include <vector>

#include <wx/string.h>

/// One field of the table.
struct ScriptArgument
{
    int key;
    std::string text; ///< UTF-8, or the bytes of the command line
};

/// Places the words around the first "--", which is the application's name at key 0: the words behind it are the
/// script's, at 1, 2, ...; the ones before it stand at negative keys, -1 next to the "--". Without a "--" all words
/// stand at negative keys. A "--" splits also where the command line's parser took it for the value of an option.
std::vector<ScriptArgument> LayOutArguments(const std::vector<wxString>& words, const wxString& applicationName);
