-- tests.velunit.standard: the globals as they were before the first script ran, for use as an environment:
--
--   local _ENV = require("tests.velunit.standard")
--
-- Tests replace `print`, drop `io` or give `os.time` another meaning. What runs between them, and reports on them, must
-- not be touched by that. The libraries are copied, not only named; what strings know as methods is beyond reach.
local standard = {}

for name, value in pairs(_G) do
  if type(value) == "table" and value ~= _G and package.loaded[name] == value then
    local library = {}
    for field, content in pairs(value) do
      library[field] = content
    end
    value = library
  end
  standard[name] = value
end

-- The application's `print` looks for `tostring` among the globals. Lines come in the order of those of `print` and of
-- whatever else writes to standard output.
function standard.print(...)
  local pieces = standard.table.pack(...)
  for index = 1, pieces.n do
    pieces[index] = standard.tostring(pieces[index])
  end
  standard.io.stdout:write(standard.table.concat(pieces, "\t"), "\n")
  standard.io.stdout:flush()
end

return standard
