-- monitor.folders: the folders that were named, as the baseline knows them.
local stdlib = require("posix.stdlib")
local unistd = require("posix.unistd")
local paths = require("vel.path")

local folders = {}

-- The absolute path for a word of the command line. Links stay in it: a link that leads elsewhere one day has to show
-- as changes, not as a folder that was never seen. Only what ends in a ".." is resolved, as the system would.
function folders.Absolute(word)
  local absolute = word:sub(1, 1) == "/" and word or unistd.getcwd() .. "/" .. word
  local climbing, rest = (absolute .. "/"):match("^(.*/%.%.)(/.*)$")
  if climbing then
    absolute = (stdlib.realpath(climbing) or climbing) .. rest
  end
  return paths.Tidy(absolute)
end

-- Whether a folder is reached through a symbolic link in any of its components.
function folders.IsLinked(absolute)
  local real = stdlib.realpath(absolute)
  return real ~= nil and real ~= absolute
end

return folders
