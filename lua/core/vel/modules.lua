-- vel.modules: which modules there are to require, in the archives and in the folders of package.path. With it an
-- application finds what extensions add to it.
local stat = require("posix.sys.stat")
local bytewise = require("vel.bytewise")
local descriptor = require("vel.descriptor")

local modules = {}

-- Outside the agent there are no archives.
local hasArchives, archives = pcall(require, "vel.archives")

local function isFile(path)
  local status = descriptor.TargetStatus(path)
  return status ~= nil and stat.S_ISREG(status.st_mode) ~= 0
end

local function listFolder(path)
  local fd = descriptor.Open(path)
  return fd and descriptor.Use(fd, descriptor.List) or {}
end

-- Adds the names that one template of a search path leads to. Templates with several question marks are passed over:
-- with them the name of a module stands in its own folder's name.
local function addFromTemplate(names, template, folder)
  local head, tail = template:match("^([^?]*)%?([^?]*)$")
  if not head then
    return
  end
  local where = head .. folder
  local suffix, inside = tail:match("^([^/]*)(.*)$") -- of files for "?.lua", in folders for "?/init.lua"
  for _, entry in ipairs(listFolder(where == "" and "." or where)) do
    local name = entry:sub(1, #entry - #suffix)
    local isModule = name .. suffix == entry and name:find("^[^.]+$") and isFile(where .. entry .. inside)
    if isModule then
      names[name] = true
    end
  end
end

-- The names of all modules directly below `prefix`: "words" for module "greet.words" below "greet". Sorted
-- bytewise. What cannot be listed counts as empty.
function modules.Below(prefix)
  local names = {}
  local folder = prefix == "" and "" or prefix:gsub("%.", "/") .. "/"
  for template in package.path:gmatch("[^;]+") do
    addFromTemplate(names, template, folder)
  end
  for _, name in ipairs(hasArchives and archives.Names(prefix) or {}) do
    names[name] = true
  end

  local sorted = {}
  for name in pairs(names) do
    sorted[#sorted + 1] = name
  end
  bytewise.Sort(sorted)
  return sorted
end

return modules
