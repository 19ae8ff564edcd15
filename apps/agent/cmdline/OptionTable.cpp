// The options of the agent. The texts are shown to operators and stay as they are on every platform.
//
// Tested by: blackbox/test_cmdline.py.

#include "cmdline/OptionTable.h"

#include <wx/cmdline.h>

namespace {

struct Option
{
    bool takesValue;
    const wchar_t* shortName;
    const wchar_t* longName;
    const wchar_t* help;
};

const Option kOptions[] = {
    {true, L"a", Options::kAppName,
     L"the name of this application (default is based on the name of the executable file)."},
    {false, L"b", Options::kBackground, L"run as a Windows service or Unix daemon process."},
    {true, L"c", Options::kLuaCPath, L"add the supplied value at the front of the search path for Lua C libraries."},
    {true, L"d", Options::kDomainVar, L"sets domain variable; name=value format."},
    {true, L"e", Options::kExtDir,
     L"extension folder. All *.kxe files from this folder are added to the Lua search path."},
    {false, L"i", Options::kInstallPlugins, L"install all *.kxp files found in the same folder as the executable."},
    {true, L"l", Options::kLuaPath, L"add the supplied value at the front of the search path for Lua libraries."},
    {true, L"p", Options::kPlugins, L"comma delimited list of plugins to enable."},
    {true, L"t", Options::kTrace, L"enable tracing for the specified set of module names, separated by commas."},
    {true, L"w", Options::kWorkDir, L"working directory where this instance's data files are stored."},
    {true, L"u", Options::kUnitTest, L"runs the Lua script (possibly wildcarded) under LuaUnit."},
    {false, L"U", Options::kTest, L""}, // without a help text on purpose
    {true, L"z", Options::kZippath,
     L"list of ZIP archives of Lua code (possibly wildcarded), separated by semi-colons."},
};

const wchar_t* const kParameterHelp = L"-- script-param [script-param ...]";

} // namespace

void AddAgentOptions(wxCmdLineParser& parser)
{
    for (const Option& option : kOptions) {
        if (option.takesValue)
            parser.AddOption(option.shortName, option.longName, option.help, wxCMD_LINE_VAL_STRING, 0);
        else
            parser.AddSwitch(option.shortName, option.longName, option.help, 0);
    }
    parser.AddParam(kParameterHelp, wxCMD_LINE_VAL_STRING, wxCMD_LINE_PARAM_OPTIONAL | wxCMD_LINE_PARAM_MULTIPLE);
}
