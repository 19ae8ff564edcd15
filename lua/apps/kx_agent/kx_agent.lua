-- kx_agent: a host-integrity monitor. It compares the files below the given folders with those of the run before.
-- Start it with: kx_agent -- [OPTION...] FOLDER...
--
-- This file has the phases; monitor/*.lua does the work.
-- Tested by: tests/lua/kx_agent_test.lua, tests/blackbox/test_monitor*.py.
local host = require("monitor.host")
local options = require("monitor.options")
local session = require("monitor.session")

local kx_agent = {}

-- Exit statuses of this file's own; those of a run are in monitor.session.
local badUsage = 2
local filesChanged = 10

local chosen -- the options of this run, see monitor.options; nil under the test driver
local hasChanges -- whether the run has found any

function kx_agent.init()
  -- The test driver takes the place of main, and the words are LuaUnit's.
  if dom:Get("app.mode.unittest") == true then
    chosen = nil
    return 0
  end

  local problem
  chosen, problem = host.ReadWords()
  if not chosen then
    io.stderr:write(problem)
    return badUsage
  end
  if chosen.help then
    assert(io.write(options.Usage))
  end
  return 0
end

-- In the foreground this thread has nothing else to do but wait: SIGINT ends the process.
local function scanOnAndOn()
  local service = dom:StartRunnable("monitor.service")
  if dom:Get("app.background") then
    return 0
  end
  local _, status = service:Join()
  return status
end

function kx_agent.main()
  hasChanges = false
  if not chosen or chosen.help then
    return 0
  elseif chosen.every then
    return scanOnAndOn()
  end
  local status
  status, hasChanges = session.Run(chosen, host.New())
  return status
end

-- A single run is over when main has returned; the host ends what scans on and on.
function kx_agent.shutdown()
  if chosen and chosen.strict and hasChanges then
    return filesChanged
  end
  return 0
end

return kx_agent
