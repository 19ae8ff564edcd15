// The sharded hash table behind a domain.
//
// Tested by: unit/core/dom/DomTest.cpp.

#include "dom/DomStore.h"

#include <algorithm>
#include <mutex>

namespace VelCore {
namespace {

bool Covers(std::string_view prefix, std::string_view name)
{
    if (prefix.empty())
        return true;
    return name.substr(0, prefix.size()) == prefix && (name.size() == prefix.size() || name[prefix.size()] == '.');
}

} // namespace

void CDomStore::Set(std::string_view name, CDomValue value)
{
    const HashedName key(name);
    Shard& shard = m_shards[key.hash & (s_Shards - 1)];
    const std::unique_lock lock(shard.lock);
    const auto found = shard.variables.find(key);
    if (found != shard.variables.end()) {
        std::swap(found->second->value, value); // the old one is destroyed when readers no longer wait
        return;
    }
    auto variable = std::make_unique<Variable>(Variable{std::string(name), std::move(value)});
    const HashedName own(variable->name);
    shard.variables.emplace(own, std::move(variable));
}

void CDomStore::Remove(std::string_view name)
{
    const HashedName key(name);
    Shard& shard = m_shards[key.hash & (s_Shards - 1)];
    const std::unique_lock lock(shard.lock);
    shard.variables.erase(key);
}

std::vector<std::string> CDomStore::Keys(std::string_view prefix) const
{
    std::vector<std::string> names;
    for (const Shard& shard : m_shards) {
        const std::shared_lock lock(shard.lock);
        for (const auto& entry : shard.variables) {
            if (Covers(prefix, entry.first.text))
                names.emplace_back(entry.first.text);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace VelCore
