// Tested by: unit/tools/kx-pack/PluginTemplateTest.cpp, blackbox/test_kx_pack.py.

#include "PluginTemplate.h"

#include <algorithm>
#include <cstddef>

namespace {

const char* const kRules =
    R"lua(-- monitor.rules.@MODULE@: what the plug-in @PLUGIN@ makes of changes that the integrity monitor finds.
-- The fields and their meaning: docs/MONITOR.md, "Rules".
return {
  -- A change of a file of this name is an error, wherever it lies.
  { match = "@MODULE@.conf", severity = "error" },
  -- What an editor leaves behind is nobody's business.
  { match = "@MODULE@.conf~", ignore = true },
}
)lua";

const char* const kReadme = R"md(# @PLUGIN@

A plug-in of `kx_agent`: rules for its integrity monitor. Everything below `files/` is installed, under the same names,
beside the agent's executable, so `files/monitor/rules/@MODULE@.lua` is the module `monitor.rules.@MODULE@`.

Build the package, and see what the agent would make of it:

    kx-pack plugin files --name @PLUGIN@ --build 1
    kx-pack verify Feature-@PLUGIN@-11.0.0-1.any.kxp

Install it: put it into the folder of the agent's executable and start the agent with `-i`. The monitor names the module
in the line `rules:` of its report. The package stays there under a name that ends in `.done`.

Remove it: build the marker, put it into the same folder and start the agent with `-i`.

    kx-pack removal Feature-@PLUGIN@-11.0.0-1.any.kxp

Raise the build number for every package that leaves your hands.
)md";

std::string Replace(std::string text, const std::string& mark, const std::string& with)
{
    for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + with.size()))
        text.replace(at, mark.size(), with);
    return text;
}

// The character types of the "C" locale, whatever the process's is.
bool IsLetter(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool IsNamePart(char character)
{
    return IsLetter(character) || (character >= '0' && character <= '9') || character == '_';
}

} // namespace

std::string ModuleNameOf(const std::string& plugin)
{
    std::string module = plugin;
    std::transform(module.begin(), module.end(), module.begin(), [](char character) {
        return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
    });
    return module;
}

std::optional<Failure> MakePlugin(const std::string& plugin, std::vector<TemplateFile>& files)
{
    if (plugin.empty() || !IsLetter(plugin.front()) || !std::all_of(plugin.begin(), plugin.end(), IsNamePart))
        return Failure{Status::Failed, "'" + plugin +
                                           "' is no name for a plug-in: it has to begin with a letter, and to consist "
                                           "of letters, digits and '_'"};
    const std::string module = ModuleNameOf(plugin);
    const auto fill = [&](const char* text) { return Replace(Replace(text, "@PLUGIN@", plugin), "@MODULE@", module); };
    files = {{"README.md", fill(kReadme)}, {"files/monitor/rules/" + module + ".lua", fill(kRules)}};
    return std::nullopt;
}
