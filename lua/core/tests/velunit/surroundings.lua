-- tests.velunit.surroundings: what scripts share and may leave changed: the globals, the libraries' functions, the
-- working folder and the default output.
--
-- Every script starts in the surroundings of the application, and its tests run in those that it has left behind. So a
-- domain or words of its own that a script puts into `dom` and `arg` stay its own.
local globals = _G
local _ENV = require("tests.velunit.standard")

local unistd = require("posix.unistd")

local surroundings = {}

local chdir, getcwd = unistd.chdir, unistd.getcwd

local function copy(content)
  local fields = {}
  for name, value in next, content do
    fields[name] = value
  end
  return fields
end

-- What has been added since stays: modules that define globals while they are loaded are not loaded again. What has
-- been removed is back.
local function restore(content, fields)
  for name, value in next, fields do
    rawset(content, name, value)
  end
end

function surroundings.Take()
  local taken = { globals = copy(globals), libraries = {}, folder = getcwd(), output = io.output() }
  for name, value in next, taken.globals do
    if type(value) == "table" and value ~= globals and package.loaded[name] == value then
      taken.libraries[value] = copy(value)
    end
  end
  return taken
end

function surroundings.PutBack(taken)
  restore(globals, taken.globals)
  for library, functions in next, taken.libraries do
    restore(library, functions)
  end
  if taken.folder then
    chdir(taken.folder)
  end
  if io.type(taken.output) == "file" then
    io.output(taken.output)
  end
end

return surroundings
