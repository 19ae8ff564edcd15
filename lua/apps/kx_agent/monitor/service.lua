-- monitor.service: the runnable of --every, which scans again and again until it is asked to exit.
--
-- A scan that fails is told in the log and the next one tries again.
--
-- Tested by: tests/blackbox/test_monitor_service.py.
local periodic = require("vel.periodic")
local host = require("monitor.host")
local session = require("monitor.session")

local service = {}

-- Whoever wants a scan now sets it; package installation does.
local scanNow = "vel.HeartbeatNow"

local function takeWish()
  if dom:Get(scanNow) ~= true then
    return false
  end
  dom:Set(scanNow, false) -- before the scan: a wish that comes while it runs is about what it may have passed already
  return true
end

function service.run(runnable)
  local chosen = assert(host.ReadWords())
  local world = host.New(function()
    return runnable:TestDestroy()
  end)

  local function scan()
    local succeeded, problem = pcall(session.Run, chosen, world)
    if not succeeded then
      world.Complain("error", tostring(problem))
    end
    chosen.reset = false -- the words ask for one
  end

  periodic.Run(runnable, chosen.every, scan, takeWish)
  return 0
end

return service
