-- monitor.host: what the monitor uses of the agent: arg, dom, the standard streams.
local clock = require("posix.time")
local unistd = require("posix.unistd")
local modules = require("vel.modules")
local terminal = require("vel.terminal")
local folders = require("monitor.folders")
local options = require("monitor.options")
local progress = require("monitor.progress")
local rules = require("monitor.rules")

local host = {}

-- What the command line asks for, with absolute paths; or nil and a complete text for standard error. See
-- monitor.options.
function host.ReadWords()
  local chosen, problem = options.Parse(arg)
  if not chosen then
    return nil, problem
  end
  for index, folder in ipairs(chosen.folders) do
    chosen.folders[index] = folders.Absolute(folder)
  end
  return chosen
end

local function seconds()
  local now = clock.clock_gettime(clock.CLOCK_MONOTONIC)
  return now.tv_sec + now.tv_nsec / 1e9
end

-- What monitor.session needs of the world.
--
-- isStopping: optional, see there
function host.New(isStopping)
  local outputIsTerminal = unistd.isatty(unistd.STDOUT_FILENO) == 1
  local errorIsTerminal = unistd.isatty(unistd.STDERR_FILENO) == 1
  local line -- the progress line, when there is one

  local function clearLine()
    if line then
      line:Clear()
    end
  end

  local self = {
    workFolder = dom:Get("app.path.work"),
    monitorFolder = dom:GetPluginWorkdir("monitor"),
    ruleNames = modules.Below(rules.Prefix),
    Load = require,
    Now = seconds,
    IsStopping = isStopping,
    paint = terminal.PainterOfStandardOutput(),
  }

  -- A report that does not reach its reader must not pass for one that did.
  function self.Write(text)
    if outputIsTerminal then
      clearLine()
    end
    assert(io.write(text))
  end

  function self.Flush()
    assert(io.flush())
  end

  function self.Log(level, text)
    clearLine()
    dom:Log(level, text)
  end

  -- On a terminal the log is shown on standard error as well.
  function self.Complain(level, text)
    if not errorIsTerminal then
      io.stderr:write("kx_agent: " .. text .. "\n")
    end
    self.Log(level, text)
  end

  function self.Event(fields)
    dom:AgentEventWrite(fields)
  end

  function self.NewProgress(findTotals)
    if progress.IsWanted(errorIsTerminal, os.getenv) then
      line = progress.New(function(text)
        io.stderr:write(text)
      end, seconds, findTotals())
    end
    return line
  end

  return self
end

return host
