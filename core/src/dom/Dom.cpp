// CDom: names and views over the store, and the root domain of the process.
//
// Tested by: unit/core/dom/DomTest.cpp.

#include <VelCore/Dom.h>

#include <atomic>

#include <VelCore/Trace.h>
#include <VelCore/Utf8.h>

#include "dom/DomStore.h"

namespace VelCore {
namespace {

std::atomic<CDom*> g_root{nullptr};
std::atomic<std::uint64_t> g_settingsGeneration{1};

// The settings that log and trace follow.
bool IsFollowed(const std::string& key)
{
    return key.compare(0, 4, "app.") == 0 &&
           (key == "app.trace" || key == "app.trace+" || key == "app.path.work" || key == "app.name");
}

bool HoldsBelow(const CDom& dom, const std::string& name)
{
    for (const std::string& key : dom.Keys(name)) {
        if (key != name)
            return true;
    }
    return false;
}

void NoteSettingsChange()
{
    g_settingsGeneration.fetch_add(1, std::memory_order_release);
    TraceFilter::Reset();
}

} // namespace

CDom::CDom(std::shared_ptr<CDomStore> store, std::string prefix)
    : m_store(std::move(store)), m_prefix(std::move(prefix))
{
}

CDom* CDom::New(const char* name, CDom* parent, bool* existed, bool isolated)
{
    if (name && parent) {
        if (existed)
            *existed = HoldsBelow(*parent, name);
        return new CDom(parent->m_store, parent->m_prefix + name + '.');
    }

    if (existed)
        *existed = false;
    auto* dom = new CDom(std::make_shared<CDomStore>(), "");
    if (!isolated) {
        g_root.store(dom);
        NoteSettingsChange();
    }
    return dom;
}

CDom::~CDom()
{
    CDom* self = this;
    if (g_root.compare_exchange_strong(self, nullptr))
        NoteSettingsChange();
}

CDom* CDom::Root()
{
    return g_root.load();
}

std::uint64_t CDom::SettingsGeneration()
{
    return g_settingsGeneration.load(std::memory_order_acquire);
}

void CDom::SetValue(const std::string& key, CDomValue value)
{
    const std::string name = m_prefix + key;
    m_store->Set(name, std::move(value));
    if (IsFollowed(name))
        NoteSettingsChange();
}

void CDom::Set(const std::string& key, bool value)
{
    SetValue(key, CDomValue(value));
}

void CDom::Set(const std::string& key, const char* value)
{
    SetValue(key, CDomValue(std::string(value ? value : "")));
}

void CDom::Set(const std::string& key, const std::string& value)
{
    SetValue(key, CDomValue(value));
}

void CDom::Set(const std::string& key, double value)
{
    SetValue(key, CDomValue(value));
}

void CDom::SetWx(const wxString& key, const wxString& value)
{
    SetValue(ToUtf8(key), CDomValue(ToUtf8(value)));
}

void CDom::SetWx(const wxString& key, long long value)
{
    SetValue(ToUtf8(key), CDomValue(static_cast<std::int64_t>(value)));
}

void CDom::Remove(const std::string& key)
{
    const std::string name = m_prefix + key;
    m_store->Remove(name);
    if (IsFollowed(name))
        NoteSettingsChange();
}

template <typename Use>
bool CDom::VisitWith(std::string_view key, const Use& use) const
{
    return m_prefix.empty() ? m_store->Read(key, use) : m_store->Read(m_prefix + std::string(key), use);
}

bool CDom::Visit(std::string_view key, const std::function<void(const CDomValue&)>& use) const
{
    return VisitWith(key, use);
}

bool CDom::Read(std::string_view key, CDomValue& value) const
{
    return VisitWith(key, [&value](const CDomValue& stored) { value = stored; });
}

std::string CDom::Get(std::string_view key) const
{
    std::string text;
    VisitWith(key, [&text](const CDomValue& stored) { text = DomValueText(stored); });
    return text;
}

bool CDom::Get(std::string_view key, bool& value) const
{
    return VisitWith(key, [&value](const CDomValue& stored) { value = DomValueIsTrue(stored); });
}

wxString CDom::GetWxString(const wxString& key) const
{
    return FromUtf8(Get(ToUtf8(key)));
}

bool CDom::Has(std::string_view key) const
{
    return VisitWith(key, [](const CDomValue&) {});
}

std::vector<std::string> CDom::Keys(const std::string& prefix) const
{
    // A view hides its own name: the names it gives are the ones it takes.
    const std::string viewName = m_prefix.substr(0, m_prefix.empty() ? 0 : m_prefix.size() - 1);
    std::vector<std::string> keys = m_store->Keys(prefix.empty() ? viewName : m_prefix + prefix);
    std::vector<std::string> shown;
    shown.reserve(keys.size());
    for (std::string& key : keys) {
        if (key.size() > m_prefix.size() || m_prefix.empty())
            shown.push_back(key.substr(m_prefix.size()));
    }
    return shown;
}

std::string CDom::WorkFolder() const
{
    std::string folder;
    // There is one for the process, whichever view is asked.
    m_store->Read("app.path.work", [&folder](const CDomValue& stored) { folder = DomValueText(stored); });
    return folder;
}

wxString CDom::GetPluginWorkdirWx(const wxString& name) const
{
    return FromUtf8(WorkFolder()) + L"/" + name;
}

} // namespace VelCore
