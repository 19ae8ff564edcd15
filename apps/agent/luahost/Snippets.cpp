// The Lua texts that the agent runs.
//
// Tested by: unit/agent/luahost/SnippetsTest.cpp.

#include "luahost/Snippets.h"

wxString RequireSnippet(const wxString& applicationName)
{
    return L"velAppModule = require([[" + applicationName + L"]]);";
}

wxString MethodSnippet(const wxString& method)
{
    return L"if type(velAppModule." + method + L") == 'function' then return velAppModule." + method +
           L"(); else return 0; end;";
}

wxString UnitTestChunk(const wxString& specification)
{
    return L"velunit = require('tests.velunit'); return velunit(\"" + specification + L"\");";
}
