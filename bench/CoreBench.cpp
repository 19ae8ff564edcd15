// What the core library costs, next to the least that the same work can cost.
//
// Each row runs the floor and our way in turn, several rounds, and prints medians and their ratio: absolute times mean
// little on a shared machine.
//
// Usage: CoreBench [row...]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <wx/init.h>

#include <lua.hpp>

#include <VelCore/Dom.h>
#include <VelCore/DomBinding.h>

namespace {

const int kRounds = 9;

// Keeps the compiler from removing what is measured.
volatile std::uint64_t g_sink = 0;

double NanosecondsPerCall(const std::function<void(int)>& run, int calls)
{
    const auto start = std::chrono::steady_clock::now();
    run(calls);
    const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
    return elapsed.count() / calls;
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Row
{
    const char* name;
    const char* floorName;
    int calls;
    std::function<void(int)> floor;
    std::function<void(int)> ours;
};

void Print(const Row& row)
{
    std::vector<double> floor;
    std::vector<double> ours;
    for (int round = 0; round < kRounds; ++round) {
        floor.push_back(NanosecondsPerCall(row.floor, row.calls));
        ours.push_back(NanosecondsPerCall(row.ours, row.calls));
    }
    const double least = Median(floor);
    const double own = Median(ours);
    std::printf("%-14s %10.1f ns  %-34s %10.1f ns  %6.2f x\n", row.name, own, row.floorName, least, own / least);
}

std::string Key(int number)
{
    return "bench.key." + std::to_string(number % 1000);
}

Row StoreRead(VelCore::CDom& dom)
{
    static std::unordered_map<std::string, std::string> map;
    static std::vector<std::string> keys;
    for (int i = 0; i < 1000; ++i) {
        keys.push_back(Key(i));
        map[Key(i)] = "value";
        dom.Set(Key(i), "value");
    }
    return {"store read", "an unordered_map without a lock", 1000000,
            [](int calls) {
                for (int i = 0; i < calls; ++i) {
                    const std::string value = map.find(keys[static_cast<std::size_t>(i) % 1000])->second;
                    g_sink = g_sink + value.size();
                }
            },
            [&dom](int calls) {
                for (int i = 0; i < calls; ++i)
                    g_sink = g_sink + dom.Get(keys[static_cast<std::size_t>(i) % 1000]).size();
            }};
}

// The cheapest method of a userdata that looks its argument up in a hash table.
int FloorGet(lua_State* L)
{
    using Map = std::unordered_map<std::string, std::string>;
    auto* map = *static_cast<Map**>(lua_touserdata(L, 1));
    std::size_t length = 0;
    const char* key = lua_tolstring(L, 2, &length);
    thread_local std::string t_key;
    t_key.assign(key, length);
    const std::string& value = map->find(t_key)->second;
    lua_pushlstring(L, value.data(), value.size());
    return 1;
}

void RunLoop(lua_State* L, const char* object, int calls)
{
    lua_getglobal(L, "loop");
    lua_getglobal(L, object);
    lua_pushinteger(L, calls);
    if (lua_pcall(L, 2, 0, 0) != LUA_OK) {
        std::fprintf(stderr, "%s\n", lua_tostring(L, -1));
        std::exit(1);
    }
}

Row DomGet(lua_State* L, VelCore::CDom& dom)
{
    static std::unordered_map<std::string, std::string> map{{"bench.key.1", "value"}};
    dom.Set("bench.key.1", "value");
    SLB3::Push(L, &dom);
    lua_setglobal(L, "ours");
    *static_cast<decltype(map)**>(lua_newuserdata(L, sizeof(&map))) = &map;
    lua_newtable(L);
    lua_newtable(L);
    lua_pushcfunction(L, FloorGet);
    lua_setfield(L, -2, "Get");
    lua_setfield(L, -2, "__index");
    lua_setmetatable(L, -2);
    lua_setglobal(L, "floor");
    if (luaL_dostring(L, "function loop(o, n) for i = 1, n do local v = o:Get('bench.key.1') end end") != LUA_OK)
        std::exit(1);
    return {"dom:Get", "a bound C method with a hash look-up", 1000000, [L](int calls) { RunLoop(L, "floor", calls); },
            [L](int calls) { RunLoop(L, "ours", calls); }};
}

bool IsWanted(const char* name, int argc, char** argv)
{
    return argc < 2 || std::find(argv + 1, argv + argc, std::string(name)) != argv + argc;
}

} // namespace

int main(int argc, char** argv)
{
    const wxInitializer framework;
    const std::unique_ptr<VelCore::CDom> dom(VelCore::CDom::New(nullptr, nullptr, nullptr, false));
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    for (const Row& row : {StoreRead(*dom), DomGet(L, *dom)}) {
        if (IsWanted(row.name, argc, argv))
            Print(row);
    }
    lua_close(L);
    return 0;
}
