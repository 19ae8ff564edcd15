// The verdict on extensions.
//
// Modules are loaded by the searcher that `require` uses in the agent, so damage, precompiled chunks and mistakes in
// the code are found where the agent would find them, and told in its words.
//
// Tested by: blackbox/test_kx_pack.py, which compares it with the agent.

#include <algorithm>
#include <memory>
#include <set>

#include <wx/filename.h>
#include <wx/wfstream.h>

#include <lua.hpp>

#include <VelCore/Dom.h>
#include <VelCore/Utf8.h>

#include "Records.h"
#include "Verdict.h"
#include "archive/ZipArchive.h"
#include "lua/ModuleIndex.h"
#include "packages/ExtensionGate.h"

namespace {

using LuaState = std::unique_ptr<lua_State, decltype(&lua_close)>;

// Behind the searchers for preloaded modules and Lua files.
const int kArchiveSearcher = 3;

std::optional<ExtensionRefusal> JudgeGate(const wxString& extension)
{
    const wxString versionFile = VersionFileOf(extension);
    if (!wxFileExists(versionFile))
        return JudgeExtension(extension, nullptr);
    wxFFileInputStream in(versionFile, L"rb");
    return JudgeExtension(extension, &in);
}

// stack: domain -> searcher
int PrepareState(lua_State* L)
{
    const auto* dom = static_cast<const VelCore::CDom*>(lua_touserdata(L, 1));
    luaL_openlibs(L);
    dom->RegisterLoader(L);
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "searchers");
    lua_rawgeti(L, -1, kArchiveSearcher);
    return 1;
}

// stack: searcher -> searcher. The message of a failure, else nothing.
std::optional<std::string> LoadModule(lua_State* L, const std::string& name)
{
    lua_pushvalue(L, -1);
    lua_pushlstring(L, name.data(), name.size());
    const int status = lua_pcall(L, 1, 1, 0);
    const char* message = status == LUA_OK ? nullptr : lua_tostring(L, -1);
    std::optional<std::string> failure;
    if (status != LUA_OK)
        failure = message ? message : "no reason given";
    lua_pop(L, 1);
    return failure;
}

// The names under which `require` finds the modules of an archive. One with a "." in its path is found under none.
std::set<std::string> ModuleNames(const VelCore::CZipArchive& archive)
{
    std::set<std::string> names;
    for (const auto& [path, module] : VelCore::ModulesOf(archive)) {
        std::string name(path);
        if (name.find('.') != std::string::npos)
            continue;
        std::replace(name.begin(), name.end(), '/', '.');
        names.insert(name);
    }
    return names;
}

std::optional<Failure> LoadModules(const std::string& path, Verdict& verdict)
{
    const std::unique_ptr<VelCore::CDom> dom(VelCore::CDom::New(nullptr, nullptr, nullptr, true));
    dom->Set("app.lua.zippath", path);
    const LuaState state(luaL_newstate(), lua_close);
    const CRecords records;
    if (state) {
        lua_pushcfunction(state.get(), PrepareState);
        lua_pushlightuserdata(state.get(), dom.get());
    }
    if (!state || lua_pcall(state.get(), 1, 1, 0) != LUA_OK)
        return Failure{Status::Failed, "cannot load the modules of '" + path + "': not enough memory"};

    verdict.lines = records.Lines(); // of an archive that cannot be read
    std::string reason;
    const auto archive = VelCore::CZipArchive::Open(path, reason);
    if (archive) {
        for (const std::string& name : ModuleNames(*archive)) {
            if (const auto message = LoadModule(state.get(), name))
                verdict.lines.push_back("Error: " + *message);
        }
    }
    verdict.accepted = archive && verdict.lines.empty();
    return std::nullopt;
}

} // namespace

std::optional<Failure> JudgeExtensionFile(const std::string& path, Verdict& verdict)
{
    const wxString extension = VelCore::FromUtf8(path);
    if (!wxIsReadable(extension)) {
        verdict.lines.push_back("Warning: Extension file '" + path + "' isn't readable");
        return std::nullopt;
    }
    if (const auto refusal = JudgeGate(extension)) {
        verdict.lines.push_back("Warning: " + VelCore::ToUtf8(refusal->warning));
        return std::nullopt;
    }
    return LoadModules(path, verdict);
}
