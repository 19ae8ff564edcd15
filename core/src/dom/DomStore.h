// DomStore.h: the hash table behind a domain.
#pragma once

#include <array>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <VelCore/Dom.h>

namespace VelCore {

/// Values by name, split over shards with a lock each, so that threads that use different names seldom meet.
///
/// Threads: any number at once.
class CDomStore
{
public:
    void Set(const std::string& key, CDomValue value);
    void Remove(const std::string& key);

    /// Copies the value out; an absent key leaves `value` untouched. Returns whether the key is present.
    bool Read(const std::string& key, CDomValue& value) const;
    bool Has(const std::string& key) const;

    /// All names that `prefix` covers, see CDom::Keys.
    std::vector<std::string> Keys(const std::string& prefix) const;

private:
    struct Shard
    {
        mutable std::shared_mutex mutex;
        std::unordered_map<std::string, CDomValue> values;
    };

    // More shards than a host has busy threads; a power of two, so that the hash is cut with a mask.
    static const std::size_t s_Shards = 64;

    Shard& ShardOf(const std::string& key);
    const Shard& ShardOf(const std::string& key) const;

    std::array<Shard, s_Shards> m_shards;
};

} // namespace VelCore
