// ConfigSettings.h: what the configuration files say.
#pragma once

#include <optional>
#include <vector>

#include <wx/string.h>

class wxConfigBase;

/// An integer entry of the database configuration.
struct SqliteEntry
{
    wxString name;
    long value;
};

/// The settings that the agent takes from its configuration files.
struct ConfigSettings
{
    wxString traceModules;
    std::optional<wxString> fipsMode; ///< nothing: the files do not mention it
    bool fullDump = false;
    std::vector<SqliteEntry> sqlite;
};

/// Reads the root group.
///
/// applicationName  names the key of the trace modules, unless `isMainAgent`
ConfigSettings ReadConfigSettings(wxConfigBase& config, const wxString& applicationName, bool isMainAgent);
