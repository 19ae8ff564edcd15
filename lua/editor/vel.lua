---@meta
-- What the host defines for Lua applications, for editors with a Lua language server. Never loaded by the agent.
--
-- Tested by: tests/blackbox/test_editor_files.py, against the methods that the agent binds.

---@alias SLB.Dom.Value string|boolean|number
---@alias SLB.Dom.Level "error"|"warning"|"message"|"verbose"

---@class SLB.Dom.AgentEvent
---@field event_number integer What happened, 32 bits. 5101 to 5106 are the agent's own.
---@field severity? SLB.Dom.Level "message" when not given.
---@field description? string Any bytes. "" when not given.

---The domain: all settings of the running agent under dotted names, and the way to its log. Call methods with a colon.
---@class SLB.Dom
local Dom = {}

---Stores an agent event. The row is on the disk when the call returns.
---@param event SLB.Dom.AgentEvent
function Dom:AgentEventWrite(event) end

---The value of the key in its own kind, else the default, else nil.
---@param key string Not empty.
---@param default? any
---@return any
function Dom:Get(key, default) end

---The folder of that name in the work folder. Whoever writes there first creates it.
---@param name string
---@return string
function Dom:GetPluginWorkdir(name) end

---Whether the key is there.
---@param key string Not empty.
---@return boolean
function Dom:Has(key) end

---The keys that equal the prefix or lie below it, sorted bytewise; all without a prefix.
---@param prefix? string
---@return string[]
function Dom:Keys(prefix) end

---Writes a record to the log.
---@param level SLB.Dom.Level
---@param text string Any bytes; control characters are shown escaped.
function Dom:Log(level, text) end

---Writes a trace record with the caller's source and line; nothing when the module is not switched on.
---@param module string
---@param text string
function Dom:LogTrace(module, text) end

---Whether trace records of the module are written.
---@param module string
---@return boolean
function Dom:LogTraceIsEnabled(module) end

---Stores a value; nil removes the key.
---@param key string Not empty.
---@param value SLB.Dom.Value|nil Whole numbers of up to 64 bits become integers.
function Dom:Set(key, value) end

---Requires a module in an interpreter and on a thread of its own, and calls its function with runnable and values.
---@param module string Not empty.
---@param ... SLB.Dom.Value|nil What the function gets behind the runnable.
---@return SLB.Runnable
function Dom:StartRunnable(module, ...) end

---Milliseconds since 1970-01-01 UTC.
---@return integer
function Dom:TimeNowMillis() end

---A module that works in the background. A handle that is collected does not stop it.
---@class SLB.Runnable
local Runnable = {}

---The name of the module.
---@return string
function Runnable:GetName() end

---Whether it was started and has not ended.
---@return boolean
function Runnable:IsRunning() end

---Waits for its end, and gives whether it has ended, and its status then. In the runnable itself: false, at once.
---@param ms? number Milliseconds; no limit when not given.
---@return boolean, integer
function Runnable:Join(ms) end

---Asks it to exit, and interrupts what it waits for.
function Runnable:RequestExit() end

---Waits for an exit request, and gives whether there is one.
---@param ms? number Milliseconds; no wait when not given.
---@return boolean
function Runnable:TestDestroy(ms) end

---The domain.
---@type SLB.Dom
dom = Dom

---The same object as `dom`.
---@type SLB.Dom
dom0 = Dom

---The words of the command line: those behind "--" from 1 on, the application's name at 0, the words before at negative
---positions.
---@type table<integer, string>
arg = nil

---What the application's module has returned. Set when the module has been loaded, before `init` is called.
---@type table
velAppModule = nil

---The test driver. Set by --unittest, when `init` has succeeded.
---@type fun(specification: string): integer
velunit = nil
