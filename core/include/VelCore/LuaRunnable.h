// LuaRunnable.h: a Lua module that works in the background.
#pragma once

#include <memory>
#include <string>

#include <VelCore/Runnable.h>

struct lua_State;

namespace VelCore {

class CLuaInterpreter;

/// Requires a module in an interpreter of its own, on a thread of its own, and calls the function that it returns, or
/// the function `run` of the table that it returns, with this runnable and the given values.
///
/// The status is that of an application's phase: the low 32 bits of a number that the function returns, else 0; of a
/// failure, what CLuaInterpreter::RunScript gives. Failures are error-level records with a traceback.
///
/// SIGINT and SIGTERM are blocked on the thread.
///
/// Ownership: shared; Lua states hold it as an object of class "SLB.Runnable" (core/src/lua/Runnable_Binding.h), and
///            CRunnableRegistry while the thread lives. Start it there.
class CLuaRunnable : public CRunnable, public std::enable_shared_from_this<CLuaRunnable>
{
public:
    /// What the host does to a new interpreter before a module is required. Called on the runnable's thread, in a
    /// protected call: it may raise Lua errors, and must not hold objects with destructors while it does.
    using Preparation = void (*)(CLuaInterpreter& interpreter);

    /// For all runnables that are started from now on.
    static void SetPreparation(Preparation preparation);

    /// module  the module's name, any bytes
    /// values  what the function gets behind the runnable, see lua/PackedValues.h
    CLuaRunnable(std::string module, std::string values);
    ~CLuaRunnable() override;

    const std::string& Module() const { return m_module; }
    const char* GetThreadName() const override { return m_module.c_str(); }

protected:
    int OnRun() override;

private:
    int RunModule();
    static int PrepareInterpreter(lua_State* L);
    static int Prepare(lua_State* L);

    std::string m_module;
    std::string m_values;
};

} // namespace VelCore
