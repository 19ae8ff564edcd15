-- tests.velunit.framework: LuaUnit as the driver and all scripts use it.
--
-- It is the one that was packed beside this file, whatever is installed on the host, and require("luaunit") gives it.
-- LuaUnit looks its globals up whenever it reports; its functions share one environment, which becomes one that tests
-- do not reach.
local standard = require("tests.velunit.standard")

local exit = require("tests.velunit.exit")
local framework = require("tests.velunit.luaunit")

package.loaded.luaunit = framework
exit.Remove() -- LuaUnit has put a function of its own in place of os.exit
standard.os.exit = exit.Refuse

local function setEnvironment(call, environment)
  for index = 1, debug.getinfo(call, "u").nups do
    if debug.getupvalue(call, index) == "_ENV" then
      debug.setupvalue(call, index, environment)
    end
  end
end

setEnvironment(framework.LuaUnit.help, standard)

-- Both would end the process; the driver does that.
local usage = framework.USAGE:gsub("^Usage: [^%[]*", "Usage: kx_agent -u SCRIPTS -- ")
function framework.LuaUnit.help()
  standard.print(usage)
end

function framework.LuaUnit.version()
  standard.print("LuaUnit " .. framework.VERSION)
end

return framework
