-- kx_agent: the beginning of a host-integrity monitor. It hashes every regular file below the given folders
-- and reports what it read. Start it with: kx_agent -- [--list] FOLDER...
--
-- This file ties the parts to the host (arg, dom, the standard streams); monitor/*.lua does the work.
-- Tested by: tests/lua/kx_agent_test.lua.
local clock = require("posix.time")
local options = require("monitor.options")
local report = require("monitor.report")
local scan = require("monitor.scan")
local tally = require("monitor.tally")

local kx_agent = {}

-- Exit statuses other than 0.
local badFolder = 1 -- a folder that was named could not be read at all
local badUsage = 2

local chosen -- the options of this run, see monitor.options; nil under the test driver

-- A report that does not reach its reader must not pass for one that did.
local function write(text)
  assert(io.write(text))
end

local function seconds()
  local now = clock.clock_gettime(clock.CLOCK_MONOTONIC)
  return now.tv_sec + now.tv_nsec / 1e9
end

-- The listener (see monitor.scan) that writes and logs each event as it comes, so nothing piles up.
local function newPrinter(withDigests)
  local printer = {}

  function printer.File(_, path, _, digest)
    if withDigests then
      write(report.DigestLine(path, digest) .. "\n")
    end
  end

  function printer.Unreadable(_, path, reason)
    local line = report.UnreadableLine(path, reason)
    write(line .. "\n")
    dom:Log("warning", line)
  end

  return printer
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
  if chosen.help then
    write(options.Usage)
  end
  return 0
end

function kx_agent.main()
  if not chosen or chosen.help then
    return 0
  end

  local start = seconds()
  local counts = tally.New()
  local allRead = scan.Run(chosen.folders, { counts, newPrinter(chosen.list) })
  local summary = report.Summary(#chosen.folders, counts:Total(), seconds() - start)

  write(report.Table(counts:Rows(), counts:Total()))
  write("\n" .. summary .. "\n")
  assert(io.flush())
  dom:Log("message", summary)
  return allRead and 0 or badFolder
end

-- The scan is over when main returns: nothing is running or held open.
function kx_agent.shutdown()
  return 0
end

return kx_agent
