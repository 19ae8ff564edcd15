// The life of a runnable's thread: an interpreter, its preparation, one call.
//
// Tested by: unit/core/lua/LuaRunnableTest.cpp, blackbox/test_runnables.py.

#include <VelCore/LuaRunnable.h>

#include <atomic>
#include <csignal>
#include <exception>
#include <utility>

#include <wx/mstream.h>

#include <lua.hpp>

#include <VelCore/LuaInterpreter.h>
#include <VelCore/Utf8.h>

#include "lua/PackedValues.h"
#include "lua/Runnable_Binding.h"
#include "trace/LogText.h"

namespace VelCore {
namespace {

std::atomic<CLuaRunnable::Preparation> g_preparation{nullptr};

// Arguments: the module's name, the runnable, the values. All on line 1, which everybody can tell for the host's.
const char kChunk[] =
    "local name = ... local module = require(name) "
    "local run = type(module) == 'table' and module.run or module "
    "if type(run) ~= 'function' then "
    "error((\"module '%s' returns neither a function nor a table with a function 'run'\"):format(name)) "
    "end return run(select(2, ...))";

// The thread that waits for SIGTERM, and the one that answers SIGINT, are others.
void BlockStopSignals()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

struct NewInterpreter
{
    CLuaRunnable& runnable;
    CLuaInterpreter& interpreter;
    CLuaRunnable::Preparation prepare;
};

} // namespace

void CLuaRunnable::SetPreparation(Preparation preparation)
{
    g_preparation = preparation;
}

CLuaRunnable::CLuaRunnable(std::string module, std::string values)
    : CRunnable(false, -1, false), m_module(std::move(module)), m_values(std::move(values))
{
}

CLuaRunnable::~CLuaRunnable() = default;

// stack: a NewInterpreter, as light userdata -> the module's name, the runnable, the values
int CLuaRunnable::PrepareInterpreter(lua_State* L)
{
    return SLB3::CallGuarded(L, Prepare);
}

int CLuaRunnable::Prepare(lua_State* L)
{
    const auto& fresh = *static_cast<const NewInterpreter*>(lua_touserdata(L, 1));
    if (fresh.prepare)
        fresh.prepare(fresh.interpreter);
    lua_settop(L, 0);
    lua_pushlstring(L, fresh.runnable.m_module.data(), fresh.runnable.m_module.size());
    SLB3::SharedObject<CLuaRunnable>& handle = SLB3::PushShared<CLuaRunnable>(L);
    SLB3::Share(handle, fresh.runnable.shared_from_this());
    return 2 + PushPacked(L, fresh.runnable.m_values);
}

// What escapes the methods that Lua calls is caught there; this is for the host's own part.
int CLuaRunnable::OnRun()
{
    BlockStopSignals();
    try {
        return RunModule();
    } catch (const std::exception& exception) {
        LogText(wxLOG_Error, "Runnable '" + m_module + "' has failed: " + exception.what());
        return LUA_ERRMEM;
    }
}

int CLuaRunnable::RunModule()
{
    const wxString name = FromUtf8(m_module);
    CLuaInterpreter interpreter(true, name.wc_str(), true);
    lua_State* L = interpreter.L();
    if (!L)
        return LUA_ERRMEM;

    NewInterpreter fresh{*this, interpreter, g_preparation};
    lua_pushcfunction(L, PrepareInterpreter);
    lua_pushlightuserdata(L, &fresh);
    const int status = lua_pcall(L, 1, LUA_MULTRET, 0);
    if (status != LUA_OK) {
        const char* reason = lua_tostring(L, -1);
        LogText(wxLOG_Error, "Error setting up Lua:\n" + m_module + ": " + (reason ? reason : "(no error message)"));
        return status;
    }

    wxMemoryInputStream chunk(kChunk, sizeof kChunk - 1);
    const int failure = interpreter.RunScript(chunk, lua_gettop(L), 1, name, nullptr);
    return failure != 0 ? failure : interpreter.TakeStatus();
}

} // namespace VelCore
