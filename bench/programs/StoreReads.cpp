// Reading a text of the domain store, next to a hash table without a lock and to one below a std::shared_mutex.
//
// Every contender finds the key and hands out a copy of the text.
//
// Usage: StoreReads CALLS ROUNDS

#include <atomic>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <wx/init.h>

#include <VelCore/Dom.h>

#include "programs/InTurn.h"

namespace {

const std::size_t kKeys = 1000;

// Keeps the compiler from removing what is measured.
std::atomic<std::size_t> g_sink{0};

// Threads begin at different keys: they should meet as seldom as those of an application.
template <typename Read>
std::function<void(int, int)> Reader(const std::vector<std::string>& keys, Read read)
{
    return [&keys, read](int calls, int thread) {
        std::size_t sum = 0;
        std::size_t next = static_cast<std::size_t>(thread) * keys.size() / 2;
        for (int i = 0; i < calls; ++i) {
            const std::string text = read(keys[next]);
            sum += text.size();
            next = next + 1 < keys.size() ? next + 1 : 0;
        }
        g_sink += sum;
    };
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    const int calls = InTurn::Number(argv[1]);
    const int rounds = InTurn::Number(argv[2]);

    const wxInitializer framework;
    const std::unique_ptr<VelCore::CDom> dom(VelCore::CDom::New(nullptr, nullptr, nullptr, true));
    std::unordered_map<std::string, std::string> map;
    std::shared_mutex mutex;
    std::vector<std::string> keys;
    for (std::size_t i = 0; i < kKeys; ++i) {
        keys.push_back("bench.key." + std::to_string(i));
        map[keys.back()] = "value";
        dom->Set(keys.back(), "value");
    }

    const std::vector<InTurn::Contender> contenders = {
        {"agent", Reader(keys, [&dom](const std::string& key) { return dom->Get(key); })},
        {"floor", Reader(keys, [&map](const std::string& key) { return map.find(key)->second; })},
        {"shared_mutex", Reader(keys, [&map, &mutex](const std::string& key) {
             const std::shared_lock lock(mutex);
             return map.find(key)->second;
         })}};
    InTurn::Print("store.one", contenders, 1, calls, rounds);
    InTurn::Print("store.two", contenders, 2, calls, rounds);
    return 0;
}
