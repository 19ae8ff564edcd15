-- kx_agent: a host-integrity monitor. It compares the files below the given folders with those of the run before.
-- Start it with: kx_agent -- [OPTION...] FOLDER...
--
-- This file ties the parts to the host (arg, dom, the standard streams); monitor/*.lua does the work.
-- Tested by: tests/lua/kx_agent_test.lua, tests/blackbox/test_monitor*.py.
local clock = require("posix.time")
local unistd = require("posix.unistd")
local modules = require("vel.modules")
local terminal = require("vel.terminal")
local folders = require("monitor.folders")
local options = require("monitor.options")
local progress = require("monitor.progress")
local rules = require("monitor.rules")
local session = require("monitor.session")

local kx_agent = {}

-- Exit statuses of this file's own; those of a run are in monitor.session.
local badUsage = 2
local filesChanged = 10

local chosen -- the options of this run, see monitor.options; nil under the test driver
local hasChanges -- whether the run has found any

local function seconds()
  local now = clock.clock_gettime(clock.CLOCK_MONOTONIC)
  return now.tv_sec + now.tv_nsec / 1e9
end

-- What monitor.session needs of the world.
local function newHost()
  local outputIsTerminal = unistd.isatty(unistd.STDOUT_FILENO) == 1
  local errorIsTerminal = unistd.isatty(unistd.STDERR_FILENO) == 1
  local line -- the progress line, when there is one

  local function clearLine()
    if line then
      line:Clear()
    end
  end

  local host = {
    workFolder = dom:Get("app.path.work"),
    monitorFolder = dom:GetPluginWorkdir("monitor"),
    ruleNames = modules.Below(rules.Prefix),
    Load = require,
    Now = seconds,
    paint = terminal.PainterOfStandardOutput(),
  }

  -- A report that does not reach its reader must not pass for one that did.
  function host.Write(text)
    if outputIsTerminal then
      clearLine()
    end
    assert(io.write(text))
  end

  function host.Flush()
    assert(io.flush())
  end

  function host.Log(level, text)
    clearLine()
    dom:Log(level, text)
  end

  -- On a terminal the log is shown on standard error as well.
  function host.Complain(level, text)
    if not errorIsTerminal then
      io.stderr:write("kx_agent: " .. text .. "\n")
    end
    host.Log(level, text)
  end

  function host.Event(fields)
    dom:AgentEventWrite(fields)
  end

  function host.NewProgress(findTotals)
    if progress.IsWanted(errorIsTerminal, os.getenv) then
      line = progress.New(function(text)
        io.stderr:write(text)
      end, seconds, findTotals())
    end
    return line
  end

  return host
end

function kx_agent.init()
  -- The test driver takes the place of main, and the words are LuaUnit's.
  if dom:Get("app.mode.unittest") == true then
    chosen = nil
    return 0
  end

  local problem
  chosen, problem = options.Parse(arg)
  if not chosen then
    io.stderr:write(problem)
    return badUsage
  end
  for index, folder in ipairs(chosen.folders) do
    chosen.folders[index] = folders.Absolute(folder)
  end
  if chosen.help then
    assert(io.write(options.Usage))
  end
  return 0
end

function kx_agent.main()
  hasChanges = false
  if not chosen or chosen.help then
    return 0
  end
  local status
  status, hasChanges = session.Run(chosen, newHost())
  return status
end

-- The run is over when main returns: nothing is running or held open.
function kx_agent.shutdown()
  if chosen and chosen.strict and hasChanges then
    return filesChanged
  end
  return 0
end

return kx_agent
