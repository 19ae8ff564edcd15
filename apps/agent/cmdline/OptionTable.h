// OptionTable.h: the command line's options as data.
#pragma once

class wxCmdLineParser;

/// Long names of the options, as the interpretation of the command line asks for them.
namespace Options {

const wchar_t* const kAppName = L"appname";
const wchar_t* const kBackground = L"background";
const wchar_t* const kDomainVar = L"domain_var";
const wchar_t* const kExtDir = L"extdir";
const wchar_t* const kInstallPlugins = L"install_plugins";
const wchar_t* const kLuaCPath = L"lua_cpath";
const wchar_t* const kLuaPath = L"lua_path";
const wchar_t* const kPlugins = L"plugins";
const wchar_t* const kTest = L"test";
const wchar_t* const kTrace = L"trace";
const wchar_t* const kUnitTest = L"unittest";
const wchar_t* const kWorkDir = L"workdir";
const wchar_t* const kZippath = L"zippath";

} // namespace Options

/// Registers the agent's options and parameters, in the order in which the usage text shows them.
void AddAgentOptions(wxCmdLineParser& parser);
