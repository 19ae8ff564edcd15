// The sharded hash table behind a domain.
//
// Tested by: unit/core/dom/DomTest.cpp.

#include "dom/DomStore.h"

#include <algorithm>
#include <mutex>

namespace VelCore {
namespace {

bool Covers(const std::string& prefix, const std::string& key)
{
    if (prefix.empty())
        return true;
    return key.compare(0, prefix.size(), prefix) == 0 && (key.size() == prefix.size() || key[prefix.size()] == '.');
}

} // namespace

CDomStore::Shard& CDomStore::ShardOf(const std::string& key)
{
    return m_shards[std::hash<std::string>()(key) & (s_Shards - 1)];
}

const CDomStore::Shard& CDomStore::ShardOf(const std::string& key) const
{
    return m_shards[std::hash<std::string>()(key) & (s_Shards - 1)];
}

void CDomStore::Set(const std::string& key, CDomValue value)
{
    Shard& shard = ShardOf(key);
    const std::unique_lock lock(shard.mutex);
    shard.values.insert_or_assign(key, std::move(value));
}

void CDomStore::Remove(const std::string& key)
{
    Shard& shard = ShardOf(key);
    const std::unique_lock lock(shard.mutex);
    shard.values.erase(key);
}

bool CDomStore::Read(const std::string& key, CDomValue& value) const
{
    const Shard& shard = ShardOf(key);
    const std::shared_lock lock(shard.mutex);
    const auto found = shard.values.find(key);
    if (found == shard.values.end())
        return false;
    value = found->second;
    return true;
}

bool CDomStore::Has(const std::string& key) const
{
    const Shard& shard = ShardOf(key);
    const std::shared_lock lock(shard.mutex);
    return shard.values.count(key) != 0;
}

std::vector<std::string> CDomStore::Keys(const std::string& prefix) const
{
    std::vector<std::string> keys;
    for (const Shard& shard : m_shards) {
        const std::shared_lock lock(shard.mutex);
        for (const auto& entry : shard.values) {
            if (Covers(prefix, entry.first))
                keys.push_back(entry.first);
        }
    }
    std::sort(keys.begin(), keys.end());
    return keys;
}

} // namespace VelCore
