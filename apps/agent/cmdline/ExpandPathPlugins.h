// ExpandPathPlugins.h: path templates times plug-ins.
#pragma once

#include <wx/string.h>

/// Multiplies a ";"-separated path template over a ","-separated list of plug-ins: each segment is repeated once per
/// plug-in, with every "@" replaced by the plug-in's name, also a segment that holds no "@". Empty pieces between two
/// separators count, one behind the last separator does not. Without plug-ins the list stays as it is.
wxString ExpandPathPlugins(const wxString& pathList, const wxString& pluginList);
