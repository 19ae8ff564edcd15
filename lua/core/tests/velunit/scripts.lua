-- tests.velunit.scripts: which files a specification means, and what is in them.
local _ENV = require("tests.velunit.standard")

local errno = require("posix.errno")
local glob = require("posix.glob")
local stat = require("posix.sys.stat")

local bytewise = require("vel.bytewise")
local text = require("vel.text")

local scripts = {}

-- The paths of the scripts, sorted bytewise. A specification that is the name of a file means that file, whatever
-- characters are in it; any other is a pattern as the shell knows it. Relative to the working folder.
function scripts.Find(specification)
  if specification:find("\0", 1, true) then
    return {} -- the system would read as far as that
  end
  local status = stat.stat(specification)
  if status and stat.S_ISREG(status.st_mode) ~= 0 then
    return { specification }
  end

  local paths = {}
  for _, path in ipairs(glob.glob(specification) or {}) do
    status = stat.stat(path)
    -- Folders are no scripts, and reading a fifo could take for ever. A link that leads nowhere is kept: it is told of
    -- when it is read.
    if not status or stat.S_ISREG(status.st_mode) ~= 0 then
      paths[#paths + 1] = path
    end
  end
  bytewise.Sort(paths)
  return paths
end

-- The script's text as a function, and nil and a message when there is none. Precompiled chunks are refused: a crafted
-- one can take over the process. A byte-order mark and a first line that begins with "#" are passed by.
function scripts.Load(path)
  local name = text.Printable(path)
  local file, _, code = io.open(path, "rb")
  local content
  if file then
    content, _, code = file:read("*a")
    file:close()
  end
  if not content then
    return nil, name .. ": " .. errno.errno(code)
  end
  content = content:gsub("^\xEF\xBB\xBF", ""):gsub("^#[^\n]*", "")
  return load(content, "@" .. name, "t")
end

return scripts
