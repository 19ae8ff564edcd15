// The least that modules in archives cost: mapped archives, one hash table, libdeflate, and Lua's compiler.
//
// Usage: RequireFloor ARCHIVE[;ARCHIVE...] NAMES

#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include <libdeflate.h>
#include <lua.hpp>

#include "programs/MappedZip.h"
#include "programs/Measure.h"
#include "programs/Requires.h"

using namespace VelBench;

namespace {

struct Modules
{
    std::list<CMappedZip> archives;
    std::unordered_map<std::string_view, MappedEntry> byName;
    libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
    std::string path;
    std::vector<char> content;
};

int Search(lua_State* L)
{
    auto& modules = *static_cast<Modules*>(lua_touserdata(L, lua_upvalueindex(1)));
    const std::string& path = FileOf(L, modules.path);
    const MappedEntry& entry = modules.byName.find(path)->second;
    if (modules.content.size() < entry.size)
        modules.content.resize(entry.size);
    if (libdeflate_deflate_decompress(modules.decompressor, entry.data.data(), entry.data.size(),
                                      modules.content.data(), entry.size, nullptr) != LIBDEFLATE_SUCCESS)
        return luaL_error(L, "damaged");
    return Load(L, modules.content.data(), entry.size, path);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        Die("usage: RequireFloor ARCHIVE[;ARCHIVE...] NAMES");
    Modules modules;
    Measure([&] {
        for (const std::string& path : Split(argv[1], ';')) {
            for (const MappedEntry& entry : modules.archives.emplace_back(path).Entries())
                modules.byName.emplace(entry.name, entry);
        }
        RequireAll(Search, &modules, argv[2]);
    });
    return 0;
}
