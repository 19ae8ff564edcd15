-- tests.velunit.protected: calls what may fail, and tells how that ended.
--
-- An outcome, as LuaUnit takes it: { status =, msg =, trace = }, of which only the status is there after a success.
local _ENV = require("tests.velunit.standard")

local exit = require("tests.velunit.exit")
local framework = require("tests.velunit.framework")

local protected = {}

local Status = framework.NodeStatus
local here = debug.getinfo(1, "S").short_src

-- LuaUnit's assertions raise messages that say what they mean.
local kinds = {
  { prefix = framework.SUCCESS_PREFIX, status = Status.SUCCESS },
  { prefix = framework.SKIP_PREFIX, status = Status.SKIP },
  { prefix = framework.FAILURE_PREFIX, status = Status.FAIL },
}

-- Anything may be raised, and showing it may fail in turn.
local function show(problem)
  if type(problem) == "string" then
    return problem
  end
  local shown, message = pcall(framework.prettystr, problem)
  return shown and message or ("(error object is a %s value)"):format(type(problem))
end

-- Status and message; `remark` is put in front of what was raised, behind the place where that happened.
local function classify(message, remark)
  for _, kind in ipairs(kinds) do
    local first, last = message:find(kind.prefix, 1, true)
    if first then
      local place = kind.status == Status.SKIP and "" or message:sub(1, first - 1)
      return kind.status, place .. remark .. message:sub(last + 1)
    end
  end
  local place = message:match("^[^\n]-:%d+: ") or ""
  return Status.ERROR, place .. remark .. message:sub(#place + 1)
end

-- Functions at the upper end of a traceback that raise errors for a test: LuaUnit's assertions and os.exit.
local function isRaising(line)
  return line:find("tests/velunit/[%w_]+%.lua:%d+: ") or line:find("[C]: in function 'error'", 1, true)
end

-- The part of a traceback that lies between those and this file, where `name` was called.
local function trim(trace, name)
  local head, rest = trace:match("^([^\n]*)(.*)$")
  local callers = rest:find("\n\t[C]: in function 'xpcall'\n\t" .. here, 1, true)
  rest = rest:sub(1, callers and callers - 1)
  local ours = 0
  for line, last in rest:gmatch("\n([^\n]*)()") do
    if not isRaising(line) then
      break
    end
    ours = last - 1
  end
  rest = rest:sub(ours + 1):gsub("in function <[^\n]*>$", function()
    return "in function '" .. name .. "'"
  end)
  return head .. rest
end

-- Calls call(...), which is known as `name`. `remark` goes into the message of a failure.
function protected.Call(name, remark, call, ...)
  local trace = "stack traceback:" -- what there is when memory has run out
  local succeeded, problem = xpcall(call, function(raised)
    trace = debug.traceback("", 2):sub(2)
    return raised
  end, ...)
  exit.EndForkedChild(not succeeded and show(problem))
  if succeeded then
    return { status = Status.SUCCESS }
  end

  local status, message = classify(show(problem), remark)
  if status == Status.SUCCESS then
    return { status = status }
  elseif status == Status.SKIP then
    return { status = status, msg = message }
  end
  return { status = status, msg = message, trace = trim(trace, name) }
end

return protected
