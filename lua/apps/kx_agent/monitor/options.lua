-- monitor.options: from the words after "--" to what this run shall do. Pure.
local text = require("vel.text")
local pattern = require("monitor.pattern")

local options = {}

options.Usage = [[
Usage: kx_agent -- [OPTION...] FOLDER...
       kx_agent -- --help

Computes the SHA-256 digest of every regular file below each FOLDER, and shows which files were added, changed (in
content, size, mode or owner) or removed since the last run. What it finds is the baseline of the next run. The first
run over a FOLDER takes its baseline.
Symbolic links are followed where they are named as a FOLDER only. /proc and /sys are left out unless named, and so are
the agent's own log, events and baseline.

  --exclude PATTERN  leave out what matches; an excluded folder is not entered. PATTERN is a shell wildcard: without
                     "/" it matches the name of a file or folder at any depth, with "/" the whole path. May be repeated.
  --json             print one JSON document instead of tables
  --list             also print a line "<sha256>  <path>" for every file, as sha256sum does
  --reset            take the present state of each FOLDER as its baseline, without comparing
  --strict           end with status 10 when a file was added, changed or removed
  --help             print this text and do nothing else

A FOLDER that begins with "-" is written ./-name. Control characters in names are shown escaped (\n, \x1b).
Exit status: 0, also when single files could not be read; 1 when a FOLDER, the baseline or a module of rules could not
be used; 2 on wrong usage; 10 with --strict.
]]

-- Options without a value, and the field they set.
local switches = { ["--json"] = "json", ["--list"] = "list", ["--reset"] = "reset", ["--strict"] = "strict" }

-- Result: the checked pattern, or nil and a complete text for standard error.
local function readPattern(word)
  if not word then
    return nil, "kx_agent: --exclude needs a pattern\n"
  end
  local checked, reason = pattern.Check(word)
  if not checked then
    return nil, ("kx_agent: --exclude '%s': %s\n"):format(text.Printable(word), reason)
  end
  return checked
end

-- words: array of texts, as in the global `arg` (what stands at 0 and below is not looked at).
-- Result: { folders = array of paths as given, exclusions = array of checked patterns, help =, json =, list =,
-- reset =, strict = booleans }, or nil and a complete text for standard error. --help needs no folder; the words behind
-- it do not count.
function options.Parse(words)
  local chosen = { folders = {}, exclusions = {}, help = false }
  for _, field in pairs(switches) do
    chosen[field] = false
  end
  local index = 1
  while words[index] do
    local word = words[index]
    if word == "--help" then
      chosen.help = true
      return chosen
    elseif switches[word] then
      chosen[switches[word]] = true
    elseif word == "--exclude" then
      index = index + 1
      local checked, problem = readPattern(words[index])
      if not checked then
        return nil, problem
      end
      table.insert(chosen.exclusions, checked)
    elseif word:sub(1, 1) == "-" then
      local printable = text.Printable(word)
      return nil, ("kx_agent: unknown option '%s'; 'kx_agent -- --help' lists the options\n"):format(printable)
    elseif word == "" then
      return nil, "kx_agent: the name of a folder is empty\n"
    else
      table.insert(chosen.folders, word)
    end
    index = index + 1
  end
  if #chosen.folders == 0 then
    return nil, options.Usage
  end
  return chosen
end

return options
