-- tests.velunit.exit: what os.exit does while scripts and tests run.
--
-- Ending the process would end the run with a status that says nothing about the tests that have not run yet. So
-- os.exit raises an error, which a test does not survive.
local library = os
local _ENV = require("tests.velunit.standard")

local unistd = require("posix.unistd")

local exit = {}

local endProcess = os.exit
local getpid = unistd.getpid
local driver = getpid()

-- What os.exit raises when it is called with success while a script's chunk runs; nil while tests run.
exit.endOfChunk = nil

-- Stands in for os.exit. A child that a test has forked does end.
function exit.Refuse(status, ...)
  if getpid() ~= driver then
    endProcess(status, ...)
  end
  if exit.endOfChunk and (status == nil or status == true or tonumber(status) == 0) then
    error(exit.endOfChunk, 0)
  end
  error(("os.exit(%s) was called"):format(status == nil and "" or tostring(status)), 2)
end

-- To be called when a test is over, with what went wrong: only one process may go on with the run.
function exit.EndForkedChild(problem)
  if getpid() ~= driver then
    if problem then
      io.stderr:write("velunit: error in a forked child: ", problem, "\n")
    end
    endProcess(not problem)
  end
end

function exit.Install()
  library.exit = exit.Refuse -- luacheck: ignore 122
end

function exit.Remove()
  library.exit = endProcess -- luacheck: ignore 122
end

return exit
