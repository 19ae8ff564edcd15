// Which trace modules are on, and their records.
//
// Every thread keeps its own copy of the module list and renews it when the settings' generation has moved, so the
// usual answer takes one atomic load and no lock.
//
// Tested by: unit/core/trace/TraceTest.cpp.

#include <VelCore/Trace.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <wx/datetime.h>

#include <VelCore/Dom.h>
#include <VelCore/Utf8.h>

#include "trace/LogFile.h"

namespace VelCore {
namespace {

struct EnabledModules
{
    std::uint64_t generation = 0;
    bool all = false;
    std::vector<std::wstring> names;
};

void AddModules(const wxString& list, EnabledModules& modules)
{
    const std::wstring& text = list.ToStdWstring();
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t comma = std::min(text.find(L',', start), text.size());
        const std::size_t first = text.find_first_not_of(L" \t", start);
        if (first < comma) {
            const std::size_t last = text.find_last_not_of(L" \t", comma - 1);
            modules.names.push_back(text.substr(first, last - first + 1));
            modules.all = modules.all || modules.names.back() == L"*";
        }
        start = comma + 1;
    }
}

void Renew(EnabledModules& modules, std::uint64_t generation)
{
    modules.generation = generation;
    modules.all = false;
    modules.names.clear();
    if (const CDom* root = CDom::Root()) {
        AddModules(root->GetWxString(L"app.trace"), modules);
        AddModules(root->GetWxString(L"app.trace+"), modules);
    }
}

thread_local EnabledModules t_modules;

} // namespace

bool LogTraceIsEnabled(const wxString& module)
{
    const std::uint64_t generation = CDom::SettingsGeneration();
    if (t_modules.generation != generation)
        Renew(t_modules, generation);
    if (t_modules.all)
        return true;
    const std::wstring& name = module.ToStdWstring();
    return std::find(t_modules.names.begin(), t_modules.names.end(), name) != t_modules.names.end();
}

void LogTrace(const wxString& module, const char* file, int line, const char* function, const wxString& message)
{
    if (!LogTraceIsEnabled(module))
        return;
    const char* slash = std::strrchr(file, '/');
    std::string text = ToUtf8(module);
    text.append(": ").append(function).append(" (").append(slash ? slash + 1 : file).append(":");
    text.append(std::to_string(line)).append("): ").append(ToUtf8(message));
    CLogFile::Get().Append(wxDateTime::GetTimeNow(), "Trace", text);
}

} // namespace VelCore
