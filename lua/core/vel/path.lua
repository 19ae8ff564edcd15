-- vel.path: paths as text. Pure: no disk, so no link is looked at.
--
-- Shape: absolute paths without a slash at the end, but for "/" itself.
--
-- Tested by: tests/lua/vel_path_test.lua.
local path = {}

-- Without empty and "." components and without slashes at the end; ".." stays. The path must be absolute.
function path.Tidy(absolute)
  local components = {}
  for component in absolute:gmatch("[^/]+") do
    if component ~= "." then
      components[#components + 1] = component
    end
  end
  return "/" .. table.concat(components, "/")
end

-- The folder of a path; nil for "/".
function path.Parent(of)
  local parent = of:match("^(.*)/[^/]+$")
  return parent == "" and "/" or parent
end

-- The last component; "" for "/".
function path.Name(of)
  return of:match("[^/]*$")
end

function path.Join(folder, name)
  return (folder == "/" and "" or folder) .. "/" .. name
end

-- With a slash at the end. In this form everything below a folder begins with the folder, and in the order of the bytes
-- it comes right behind it.
function path.WithSlash(of)
  return of == "/" and of or of .. "/"
end

-- The other way round.
function path.WithoutSlash(of)
  return of == "/" and of or of:sub(1, -2)
end

return path
