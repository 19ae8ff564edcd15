-- monitor.options: from the words after "--" to what this run shall do. Pure.
local text = require("vel.text")

local options = {}

options.Usage = [[
Usage: kx_agent -- [--list] FOLDER...
       kx_agent -- --help

Computes the SHA-256 digest of every regular file below each FOLDER and shows how much was read where.
Symbolic links are followed where they are named as a FOLDER only. /proc and /sys are left out unless named.

  --list   also print a line "<sha256>  <path>" for every file, as sha256sum does
  --help   print this text and do nothing else

A FOLDER that begins with "-" is written ./-name. Control characters in names are shown escaped (\n, \x1b).
Exit status: 0, also when single files could not be read; 1 when a FOLDER could not be read at all; 2 on wrong usage.
]]

-- words: array of texts, as in the global `arg` (what stands at 0 and below is not looked at).
-- Result: { folders = array of paths without trailing slashes, list = boolean, help = boolean },
-- or nil and a complete text for standard error. --help needs no folder; the words behind it do not count.
function options.Parse(words)
  local chosen = { folders = {}, list = false, help = false }
  for _, word in ipairs(words) do
    if word == "--help" then
      chosen.help = true
      return chosen
    elseif word == "--list" then
      chosen.list = true
    elseif word:sub(1, 1) == "-" then
      local printable = text.Printable(word)
      return nil, ("kx_agent: unknown option '%s'; 'kx_agent -- --help' lists the options\n"):format(printable)
    elseif word == "" then
      return nil, "kx_agent: the name of a folder is empty\n"
    else
      -- "link/" would make the system follow the link.
      chosen.folders[#chosen.folders + 1] = word:gsub("(.)/+$", "%1")
    end
  end
  if #chosen.folders == 0 then
    return nil, options.Usage
  end
  return chosen
end

return options
