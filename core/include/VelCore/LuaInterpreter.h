// LuaInterpreter.h: one Lua state, prepared for applications.
#pragma once

#include <string>
#include <string_view>

#include <wx/string.h>

class wxInputStream;
class wxOutputStream;
struct lua_State;

namespace VelCore {

struct LuaOutput;

/// A Lua 5.2 state with all standard libraries, adapted to a long-lived process of several threads:
///
/// - `os.exit` ends the process from any thread; `os.execute` and `io.popen` start their children with default signal
///   dispositions and an empty mask.
/// - What a script prints goes to the stream that `RunScript` was given.
/// - `require` takes Lua text only; precompiled chunks are refused. LUA_PATH and LUA_CPATH are ignored.
///
/// Threads: one at a time.
class CLuaInterpreter
{
public:
    /// showFailures   true: records of failures appear on a terminal like other records; false: the caller writes
    ///                `GetErrorInfo` to standard error itself
    /// name           what to call the state in a message about the state itself
    /// openLibraries  open the standard libraries
    ///
    /// Errors: when memory is short, `L` is null and `GetErrorInfo` says so.
    CLuaInterpreter(bool showFailures, const wchar_t* name, bool openLibraries);
    virtual ~CLuaInterpreter();

    CLuaInterpreter(const CLuaInterpreter&) = delete;
    CLuaInterpreter& operator=(const CLuaInterpreter&) = delete;

    /// The state, owned by this object; null when it could not be made.
    lua_State* L() const { return m_state; }

    /// Sets where `require` looks for files. Entries relative to the current folder are left out of Lua's built-in
    /// paths: the process runs as root.
    ///
    /// bin    the executable's folder
    /// path   a module path to put in front, may be empty
    /// cpath  a C-module path to put in front, may be empty
    ///
    /// Stack:  unchanged on success.
    /// Errors: false with the error message pushed onto the stack.
    bool SetPackagePaths(const std::string& bin, const std::string& path, const std::string& cpath);

    /// Loads the whole stream as one chunk of Lua text and calls it.
    ///
    /// arguments  how many values on top of the stack to pass; they are removed
    /// results    how many values the call leaves on the stack when it succeeds
    /// name       shown in messages as `name:line:`
    /// out        receives what the chunk prints; null for C's standard output
    ///
    /// Returns 0; 1 when the chunk cannot be loaded, or the stream not read to its end; Lua's status (2 run-time error,
    /// 4 memory, 5 error in a finalizer, 6 error in error handling) when it fails while running.
    /// Errors: each failure is an error-level record with the text of `GetErrorInfo`.
    int RunScript(wxInputStream& in, int arguments, int results, const wxString& name, wxOutputStream* out);

    /// Removes the value on top of the stack and gives it as a status: the low half of the integer that Lua makes of a
    /// number or a numeric text, so 2^32 counts as success; 0 for everything else.
    int TakeStatus();

    /// The message of the last failure, followed by its stack traceback; empty when none has failed. The middle of a
    /// long text is left out where memory was too short for it.
    wxString GetErrorInfo() const { return m_errorInfo; }

private:
    int Fail(int status);
    void RecordFailure(std::string_view text);
    void RecordText(std::string_view text);

    lua_State* m_state = nullptr;
    bool m_showFailures;
    std::string m_name;
    LuaOutput* m_output = nullptr; // owned by the Lua state
    wxString m_errorInfo;
    std::string m_builtInPath; // Lua's compiled-in search paths
    std::string m_builtInCPath;
    std::string m_path; // kept for the protected call that sets them
    std::string m_cpath;
};

} // namespace VelCore
