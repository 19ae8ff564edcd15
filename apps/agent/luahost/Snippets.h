// Snippets.h: the Lua texts that the agent runs.
#pragma once

#include <wx/string.h>

/// Loads the application module. The name is inserted as it is.
wxString RequireSnippet(const wxString& applicationName);

/// Calls a function of the application module; a module without it succeeds.
wxString MethodSnippet(const wxString& method);

/// Runs the test driver. The specification is inserted as it is, inside a Lua string literal.
wxString UnitTestChunk(const wxString& specification);
