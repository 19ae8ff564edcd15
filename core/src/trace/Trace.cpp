// Which trace modules are on, and their records.
//
// Every thread keeps its own copy of the module list and renews it when the settings' generation has moved, so an
// answer takes no lock. The first one that is asked after a change says in a filter which modules need not ask at all.
//
// Tested by: unit/core/trace/TraceTest.cpp.

#include <VelCore/Trace.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <VelCore/Dom.h>

#include "threads/OfThread.h"
#include "trace/LogFile.h"
#include "trace/RecordLine.h"

namespace VelCore {
namespace {

const std::uint64_t kAllBits = ~std::uint64_t{0};

struct EnabledModules
{
    std::uint64_t generation = 0;
    bool all = false;
    std::uint64_t bits = 0; // of the names, in the filter
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
            modules.bits |= modules.all ? kAllBits : TraceFilter::BitsOf(modules.names.back());
        }
        start = comma + 1;
    }
}

void Renew(EnabledModules& modules, std::uint64_t generation)
{
    modules.generation = generation;
    modules.all = false;
    modules.bits = 0;
    modules.names.clear();
    if (const CDom* root = CDom::Root()) {
        AddModules(root->GetWxString(L"app.trace"), modules);
        AddModules(root->GetWxString(L"app.trace+"), modules);
    }
}

// Nobody may set the filter to what an older state of the lists held.
std::mutex g_filterMutex;

void SetFilter(const EnabledModules& modules)
{
    const std::lock_guard lock(g_filterMutex);
    if (CDom::SettingsGeneration() == modules.generation)
        TraceFilter::g_bits = modules.bits;
}

} // namespace

std::atomic<std::uint64_t> TraceFilter::g_bits{kAllBits};

void TraceFilter::Reset()
{
    const std::lock_guard lock(g_filterMutex);
    g_bits = kAllBits;
}

bool TraceListsHold(const wxString& module)
{
    auto& modules = OfThread<EnabledModules>();
    const std::uint64_t generation = CDom::SettingsGeneration();
    if (modules.generation != generation)
        Renew(modules, generation);
    if (TraceFilter::g_bits != modules.bits)
        SetFilter(modules);
    if (modules.all)
        return true;
    const std::wstring& name = module.ToStdWstring();
    return std::find(modules.names.begin(), modules.names.end(), name) != modules.names.end();
}

void LogTrace(const wxString& module, const char* file, int line, const char* function, const wxString& message)
{
    if (!TraceListsHold(module))
        return;
    const char* slash = std::strrchr(file, '/');
    const CLogLease::Clock::time_point now = CLogLease::Clock::now();
    CRecordLine& record = CLogFile::Begin(CLogLease::Clock::to_time_t(now), "Trace");
    record.AddEscaped(module).Add(": ").AddEscaped(std::string_view(function));
    record.Add(" (").AddEscaped(std::string_view(slash ? slash + 1 : file)).Add(":").Add(line).Add("): ");
    record.AddEscaped(message);
    CLogFile::Get().Append(record, now);
}

} // namespace VelCore
