// TraceList.h: lists of trace modules.
#pragma once

#include <wx/string.h>

/// The modules that are traced when the configuration of the main agent says nothing.
const wchar_t* const kDefaultTraceModules = L"Appl,Cmd,Srvc,vel.Heartbeat,vel.ListenThread,vel.PluginUtils";

/// `list` without single and double quotes, which some service managers pass on.
wxString WithoutQuotes(const wxString& list);
