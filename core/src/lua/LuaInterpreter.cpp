// CLuaInterpreter: the state, its preparation, and the protected run of a chunk.
//
// Lua leaves a failing function by longjmp, which runs no destructors. So no function here holds an object with one
// while it calls a Lua function that may fail; what has to live that long is a member.
//
// Tested by: unit/core/lua/LuaInterpreterTest.cpp.

#include <VelCore/LuaInterpreter.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#include <wx/stream.h>

#include <lua.hpp>

#include <VelCore/Log2Disk.h>
#include <VelCore/Utf8.h>

#include "lua/FileSearcher.h"
#include "lua/LuaOutput.h"
#include "lua/LuaProcess.h"
#include "lua/PackagePaths.h"
#include "lua/Queue_Binding.h"
#include "lua/RunningLua.h"
#include "lua/TextChunk.h"
#include "lua/Traceback.h"
#include "trace/LogText.h"

namespace VelCore {
namespace {

// What RunScript answers when the chunk cannot be loaded. Lua's own number for it, 3, means something else as an exit
// status.
const int kCannotLoad = 1;

// How much of each end of a failure's text is kept when there is no memory for all of it.
const std::size_t kKeptOfLongText = 2000; // bytes

int OpenLibraries(lua_State* L)
{
    // The environment must not choose what a program that runs as root loads.
    lua_pushboolean(L, 1);
    lua_setfield(L, LUA_REGISTRYINDEX, "LUA_NOENV");
    luaL_openlibs(L);
    InstallFileSearcher(L);
    InstallProcessFunctions(L);
    InstallQueues(L);
    lua_pushlightuserdata(L, InstallOutput(L));
    return 1;
}

// stack: message -> text of the message with a traceback
int DescribeFailure(lua_State* L)
{
    if (!lua_isstring(L, 1) && !luaL_callmeta(L, 1, "__tostring"))
        lua_pushfstring(L, "(error object is a %s value)", luaL_typename(L, 1));
    if (!lua_tostring(L, -1)) // a __tostring may give anything
        lua_pushliteral(L, "(error object without a text)");
    PushTraceback(L, 1);
    lua_concat(L, 2);
    return 1;
}

// stack: the path and the C path, as light userdata -> nothing
int SetPaths(lua_State* L)
{
    const auto* path = static_cast<const std::string*>(lua_touserdata(L, 1));
    const auto* cpath = static_cast<const std::string*>(lua_touserdata(L, 2));
    lua_getglobal(L, "package");
    lua_pushlstring(L, path->data(), path->size());
    lua_setfield(L, -2, "path");
    lua_pushlstring(L, cpath->data(), cpath->size());
    lua_setfield(L, -2, "cpath");
    return 0;
}

// A field of the package table as it is right after the libraries were opened: Lua's compiled-in path.
std::string BuiltInPath(lua_State* L, const char* field)
{
    lua_getglobal(L, "package");
    lua_getfield(L, -1, field);
    const char* text = lua_tostring(L, -1);
    std::string path = text ? text : "";
    lua_pop(L, 2);
    return path;
}

std::string ReadAll(wxInputStream& in)
{
    std::string text;
    char buffer[4096];
    // A stream over a file that could not be opened has failed already, and forgets it when it is read.
    while (in.GetLastError() != wxSTREAM_READ_ERROR && in.Read(buffer, sizeof buffer).LastRead() > 0)
        text.append(buffer, in.LastRead());
    return text;
}

// The message begins the text, and the innermost calls of the traceback end it.
std::string Shortened(std::string_view text)
{
    if (text.size() <= 2 * kKeptOfLongText)
        return std::string(text);
    const std::size_t left = text.size() - 2 * kKeptOfLongText;
    std::string shortened(text.substr(0, kKeptOfLongText));
    shortened.append("\n... (").append(std::to_string(left)).append(" bytes left out, memory is short) ...\n");
    return shortened.append(text.substr(text.size() - kKeptOfLongText));
}

} // namespace

CLuaInterpreter::CLuaInterpreter(bool showFailures, const wchar_t* name, bool openLibraries)
    : m_showFailures(showFailures), m_name(ToUtf8(name))
{
    m_state = luaL_newstate();
    if (!m_state) {
        RecordFailure(m_name + ": not enough memory for a Lua state");
        return;
    }
    if (!openLibraries)
        return;
    lua_pushcfunction(m_state, OpenLibraries);
    const int status = lua_pcall(m_state, 0, 1, 0);
    if (status != LUA_OK) {
        Fail(status);
        lua_close(m_state);
        m_state = nullptr;
        return;
    }
    m_output = static_cast<LuaOutput*>(lua_touserdata(m_state, -1));
    lua_pop(m_state, 1);
    m_builtInPath = BuiltInPath(m_state, "path");
    m_builtInCPath = BuiltInPath(m_state, "cpath");
}

CLuaInterpreter::~CLuaInterpreter()
{
    if (m_state)
        lua_close(m_state);
}

bool CLuaInterpreter::SetPackagePaths(const std::string& bin, const std::string& path, const std::string& cpath)
{
    m_path = ModulePath(bin, path, m_builtInPath);
    m_cpath = CModulePath(bin, cpath, m_builtInCPath);
    lua_pushcfunction(m_state, SetPaths);
    lua_pushlightuserdata(m_state, &m_path);
    lua_pushlightuserdata(m_state, &m_cpath);
    return lua_pcall(m_state, 2, 0, 0) == LUA_OK;
}

int CLuaInterpreter::RunScript(wxInputStream& in, int arguments, int results, const wxString& name, wxOutputStream* out)
{
    if (!m_state)
        return LUA_ERRMEM;
    const int base = lua_gettop(m_state) - arguments;
    if (!lua_checkstack(m_state, 2 + (results > 0 ? results : 0))) {
        lua_settop(m_state, base);
        RecordFailure("stack overflow");
        return LUA_ERRMEM;
    }

    // stack from base + 1: message handler, chunk, arguments
    lua_pushcfunction(m_state, DescribeFailure);
    lua_insert(m_state, base + 1);
    const int loaded = LoadText(m_state, ReadAll(in), ("=" + ToUtf8(name)).c_str());
    if (in.GetLastError() == wxSTREAM_READ_ERROR) { // the beginning of a script is another script
        lua_settop(m_state, base);
        RecordFailure(ToUtf8(name) + ": cannot be read to its end");
        return kCannotLoad;
    }
    if (loaded != LUA_OK) {
        lua_pushcfunction(m_state, DescribeFailure); // the chunk did not run, so nobody has described it yet
        lua_insert(m_state, -2);
        lua_pcall(m_state, 1, 1, 0);
        Fail(kCannotLoad);
        lua_settop(m_state, base);
        return kCannotLoad;
    }
    lua_insert(m_state, base + 2);

    wxOutputStream* outer = nullptr;
    if (m_output) {
        outer = m_output->stream;
        m_output->stream = out;
    }
    int status = LUA_OK;
    {
        const CRunningLua running(m_state);
        status = lua_pcall(m_state, arguments, results, base + 1);
    }
    if (m_output)
        m_output->stream = outer;

    if (status == LUA_OK) {
        lua_remove(m_state, base + 1);
        return 0;
    }
    Fail(status);
    lua_settop(m_state, base);
    return status;
}

int CLuaInterpreter::TakeStatus()
{
    const int status = static_cast<int>(static_cast<std::uint32_t>(lua_tointegerx(m_state, -1, nullptr)));
    lua_pop(m_state, 1);
    return status;
}

// Records the failure whose text is on top of the stack.
int CLuaInterpreter::Fail(int status)
{
    std::size_t length = 0;
    const char* text = lua_tolstring(m_state, -1, &length);
    RecordFailure(text ? std::string_view(text, length) : "(no error message)");
    return status;
}

// A message may be of any length, and the want of memory may be what it tells of.
void CLuaInterpreter::RecordFailure(std::string_view text)
{
    try {
        RecordText(text);
    } catch (const std::bad_alloc&) {
        RecordText(Shortened(text));
    }
}

void CLuaInterpreter::RecordText(std::string_view text)
{
    m_errorInfo = FromUtf8(text);
    if (m_showFailures) {
        LogText(wxLOG_Error, text);
        return;
    }
    const CTerminalQuiet quiet;
    LogText(wxLOG_Error, text);
}

} // namespace VelCore
