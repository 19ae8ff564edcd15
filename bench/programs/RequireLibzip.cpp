// Modules in archives as libzip finds them: opened once, in one hash table like the floor's.
//
// Usage: RequireLibzip ARCHIVE[;ARCHIVE...] NAMES

#include <string>
#include <unordered_map>
#include <vector>

#include <lua.hpp>
#include <zip.h>

#include "programs/Measure.h"
#include "programs/Requires.h"

using namespace VelBench;

namespace {

struct Place
{
    zip_t* archive;
    zip_uint64_t index;
};

struct Modules
{
    std::unordered_map<std::string, Place> byName;
    std::string path;
    std::vector<char> content;
};

void Index(const std::string& path, Modules& modules)
{
    zip_t* const archive = zip_open(path.c_str(), ZIP_RDONLY, nullptr);
    if (!archive)
        Die("cannot open " + path);
    const auto count = static_cast<zip_uint64_t>(zip_get_num_entries(archive, 0));
    for (zip_uint64_t index = 0; index < count; ++index)
        modules.byName.emplace(zip_get_name(archive, index, ZIP_FL_ENC_RAW), Place{archive, index});
}

int Search(lua_State* L)
{
    auto& modules = *static_cast<Modules*>(lua_touserdata(L, lua_upvalueindex(1)));
    const std::string& path = FileOf(L, modules.path);
    const Place& place = modules.byName.find(path)->second;
    zip_stat_t status;
    zip_stat_index(place.archive, place.index, 0, &status);
    if (modules.content.size() < status.size)
        modules.content.resize(status.size);
    zip_file_t* const file = zip_fopen_index(place.archive, place.index, 0);
    if (!file || zip_fread(file, modules.content.data(), status.size) != static_cast<zip_int64_t>(status.size))
        return luaL_error(L, "damaged");
    zip_fclose(file);
    return Load(L, modules.content.data(), status.size, path);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        Die("usage: RequireLibzip ARCHIVE[;ARCHIVE...] NAMES");
    Modules modules;
    Measure([&] {
        for (const std::string& path : Split(argv[1], ';'))
            Index(path, modules);
        RequireAll(Search, &modules, argv[2]);
    });
    return 0;
}
