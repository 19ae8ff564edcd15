// DomStore.h: the hash table behind a domain.
#pragma once

#include <array>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <VelCore/Dom.h>

#include "threads/ManyReadersLock.h"

namespace VelCore {

/// Values by name, split over shards with a lock each, so that threads that use different names seldom meet.
///
/// Threads: any number at once.
class CDomStore
{
public:
    void Set(std::string_view name, CDomValue value);
    void Remove(std::string_view name);

    /// Calls `use` with the value while no thread can change it; not at all when the name is absent. `use` is quick and
    /// leaves the domain and Lua alone. Returns whether the name is present.
    template <typename Use>
    bool Read(std::string_view name, const Use& use) const
    {
        const HashedName key(name);
        const Shard& shard = m_shards[key.hash & (s_Shards - 1)];
        const std::shared_lock lock(shard.lock);
        const auto found = shard.variables.find(key);
        if (found == shard.variables.end())
            return false;
        use(found->second->value);
        return true;
    }

    /// All names that `prefix` covers, see CDom::Keys.
    std::vector<std::string> Keys(std::string_view prefix) const;

private:
    // A view, so that nothing has to be copied to look a name up, and its hash, which finds shard and variable.
    struct HashedName
    {
        explicit HashedName(std::string_view name) : text(name), hash(std::hash<std::string_view>()(name)) {}
        bool operator==(const HashedName& other) const { return hash == other.hash && text == other.text; }

        std::string_view text;
        std::size_t hash;
    };

    struct HashOf
    {
        std::size_t operator()(const HashedName& name) const { return name.hash; }
    };

    struct Variable
    {
        std::string name; // what the key of the table is a view on
        CDomValue value;
    };

    struct Shard
    {
        mutable CManyReadersLock lock;
        std::unordered_map<HashedName, std::unique_ptr<Variable>, HashOf> variables;
    };

    // More shards than a host has busy writers; a power of two, so that the hash is cut with a mask.
    static const std::size_t s_Shards = 16;

    std::array<Shard, s_Shards> m_shards;
};

} // namespace VelCore
