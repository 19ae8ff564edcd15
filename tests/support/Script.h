// Script.h: running Lua texts in tests.
#pragma once

#include <string>

#include <VelCore/LuaInterpreter.h>

#include <lua.hpp>

#include "support/Capture.h"

namespace VelTest {

/// An interpreter whose failures are captured instead of logged.
class CScript
{
public:
    explicit CScript(bool openLibraries = true);

    VelCore::CLuaInterpreter& Interpreter() { return m_interpreter; }
    lua_State* L() { return m_interpreter.L(); }
    const CLogCapture& Log() const { return m_log; }

    /// Runs the text as chunk "test" and gives RunScript's answer. What it prints is in `Output`.
    int Run(const std::string& text, int results = 0);

    /// The text of the first value that `text` returns, as `tostring` gives it; a failure is "error: <message>".
    std::string Value(const std::string& text);

    /// What the last text printed.
    const std::string& Output() const { return m_output; }

    /// The first line of the last failure's text.
    std::string Error() const;

private:
    CLogCapture m_log;
    VelCore::CLuaInterpreter m_interpreter;
    std::string m_output;
};

/// A Lua state whose memory can be made short.
class CPoorState
{
public:
    CPoorState();
    ~CPoorState();
    CPoorState(const CPoorState&) = delete;
    CPoorState& operator=(const CPoorState&) = delete;

    lua_State* L() { return m_state; }

    /// From now on only this many allocations succeed.
    void Allow(int allocations) { m_budget.left = allocations; }
    void AllowAll() { m_budget.left = s_NoLimit; }

    /// Closes the state. Returns how many bytes it has not given back.
    long Close();

    struct Budget
    {
        int left = s_NoLimit;
        long bytes = 0;
    };

    /// For lua_newstate and lua_setallocf, with a Budget.
    static void* Allocate(void* budget, void* block, std::size_t oldSize, std::size_t newSize);

private:
    static const int s_NoLimit = -1;

    Budget m_budget;
    lua_State* m_state;
};

} // namespace VelTest
