// The keys of the configuration files.
//
// Tested by: unit/agent/cmdline/ConfigSettingsTest.cpp, blackbox/test_config.py.

#include "cmdline/ConfigSettings.h"

#include <wx/confbase.h>

#include "cmdline/TraceList.h"

namespace {

// The framework changes the variable even when it answers false, so only the answer counts.
std::optional<long> ReadInteger(const wxConfigBase& config, const wxString& key)
{
    long value = 0;
    if (!config.Read(key, &value))
        return std::nullopt;
    return value;
}

wxString ReadTraceModules(const wxConfigBase& config, const wxString& applicationName, bool isMainAgent)
{
    const wxString key = isMainAgent ? wxString(L"Trace") : applicationName + L".Trace";
    return config.Read(key, isMainAgent ? kDefaultTraceModules : L"");
}

std::vector<SqliteEntry> ReadSqliteEntries(wxConfigBase& config)
{
    std::vector<SqliteEntry> entries;
    wxString name;
    long cookie = 0;
    for (bool more = config.GetFirstEntry(name, cookie); more; more = config.GetNextEntry(name, cookie)) {
        if (!name.StartsWith(L"sqlite.config"))
            continue;
        if (const auto value = ReadInteger(config, name))
            entries.push_back({name, *value});
    }
    return entries;
}

} // namespace

ConfigSettings ReadConfigSettings(wxConfigBase& config, const wxString& applicationName, bool isMainAgent)
{
    ConfigSettings settings;
    settings.traceModules = ReadTraceModules(config, applicationName, isMainAgent);
    if (config.HasEntry(L"FIPSMode"))
        settings.fipsMode = config.Read(L"FIPSMode", L"");
    settings.fullDump = ReadInteger(config, L"DumpLevel").value_or(0) != 0;
    settings.sqlite = ReadSqliteEntries(config);
    return settings;
}
