// Dom.h: the domain, the store of settings that the process and its Lua applications share.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include <wx/string.h>

struct lua_State;

namespace VelCore {

class CAgentEvent;
class CDomStore;

/// A value of the store, in its own kind. Strings are bytes, by convention UTF-8.
using CDomValue = std::variant<bool, std::int64_t, double, std::string>;

/// The text of a value: "true"/"false", decimal integers, doubles as "%.14g" with a point, strings as they are.
std::string DomValueText(const CDomValue& value);

/// The value as a boolean: numbers other than zero and the strings "true", "yes", "on" and "1" (any case) are true,
/// everything else is false.
bool DomValueIsTrue(const CDomValue& value);

/// A store of values under dotted names such as `app.path.bin`.
///
/// A write replaces value and kind. A name that was never written, or was removed, is absent, which is not a value.
/// Names are opaque: dots group them for `Keys` only.
///
/// Ownership: the root domain belongs to the application object and outlives every thread that uses it.
/// Threads:   any number at once; a read never sees half a write.
class CDom
{
public:
    /// Creates a domain.
    ///
    /// name, parent  with both, the new domain is a view on the names of `parent` below `name` and a dot; with null
    ///               pointers it is a store of its own.
    /// existed       when not null, receives whether `parent` already held a name below `name`.
    /// isolated      false: a store of its own becomes the root domain of the process, whose settings log, trace and
    ///               plug-in folders follow; true: it does not.
    static CDom* New(const char* name, CDom* parent, bool* existed, bool isolated);

    virtual ~CDom();

    CDom(const CDom&) = delete;
    CDom& operator=(const CDom&) = delete;

    /// The root domain of the process, or null before it is made and after it is destroyed.
    static CDom* Root();

    /// A number that changes whenever a setting that log or trace follows is written in the root domain, and whenever
    /// the root domain itself changes. Reading it costs one atomic load.
    static std::uint64_t SettingsGeneration();

    void Set(const std::string& key, bool value);
    void Set(const std::string& key, const char* value);
    void Set(const std::string& key, const std::string& value);
    void Set(const std::string& key, double value);
    template <typename Integer,
              typename = std::enable_if_t<std::is_integral_v<Integer> && !std::is_same_v<Integer, bool>>>
    void Set(const std::string& key, Integer value)
    {
        SetValue(key, CDomValue(static_cast<std::int64_t>(value)));
    }
    // Wide texts would be taken for booleans: SetWx is for them.
    template <typename Text>
    std::enable_if_t<std::is_same_v<Text, wxString>> Set(const std::string& key, const Text& value) = delete;
    template <typename Character>
    std::enable_if_t<std::is_same_v<Character, wchar_t>> Set(const std::string& key, const Character* value) = delete;
    void SetWx(const wxString& key, const wxString& value);
    void SetWx(const wxString& key, long long value);
    void SetValue(const std::string& key, CDomValue value);
    void Remove(const std::string& key);

    /// The text of the value, "" when absent.
    std::string Get(std::string_view key) const;
    wxString GetWxString(const wxString& key) const;

    /// Reads the value as a boolean; an absent key leaves `value` untouched. Returns whether the key is present.
    bool Get(std::string_view key, bool& value) const;

    /// Reads the value in its own kind; an absent key leaves `value` untouched. Returns whether the key is present.
    bool Read(std::string_view key, CDomValue& value) const;

    /// Calls `use` with the value, which it may look at until it returns; not at all when the key is absent. No copy is
    /// made, and no thread can change the value meanwhile: `use` is quick and leaves the domain and Lua alone. Returns
    /// whether the key is present.
    bool Visit(std::string_view key, const std::function<void(const CDomValue&)>& use) const;

    bool Has(std::string_view key) const;

    /// The names that equal `prefix` or lie below it ("app" finds `app.name`, not `apparatus`), sorted bytewise. An
    /// empty prefix finds all.
    std::vector<std::string> Keys(const std::string& prefix) const;

    /// The work folder of a plug-in, `<app.path.work>/<name>`. Whoever writes there first creates it.
    wxString GetPluginWorkdirWx(const wxString& name) const;

    /// Stores one event in table `agent_event` of the SQLite database `<app.path.work>/agent_events.db`. The row is
    /// durable when the call returns.
    ///
    /// Errors:  an error-level record that holds the whole event. A damaged database is set aside under another name,
    ///          which is such a record too, and a new one is started.
    /// Threads: any; it waits for the disk, and for other writers up to `sqlite.config.busy_timeout`.
    void AgentEventWrite(const CAgentEvent& event) const;

    /// Makes `require` in this state find modules in the archives that `app.lua.zippath` names now, and a module
    /// `vel.archives` that tells which modules they hold.
    ///
    /// Stack:  unchanged.
    /// Errors: a Lua error when the package library is not open or memory is short; an archive that cannot be read
    ///         is an error-level record, once per process, and is left out.
    void RegisterLoader(lua_State* L) const;

private:
    CDom(std::shared_ptr<CDomStore> store, std::string prefix);

    template <typename Use>
    bool VisitWith(std::string_view key, const Use& use) const;

    std::string WorkFolder() const;

    std::shared_ptr<CDomStore> m_store; // shared with the views below this domain
    std::string m_prefix;               // "" for a store of its own, else the view's name and a dot
};

} // namespace VelCore
