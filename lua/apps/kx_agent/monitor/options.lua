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
Symbolic links are followed where they are named as a FOLDER, or lie in the path to one. /proc and /sys are left out
unless named, and so is the folder of the agent's own log. Its events and baseline are left out always.

  --every SECONDS    scan again and again, with so many seconds from start to start, until the agent is stopped
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

-- Seconds; a longest wait of more than 30 years is a mistake.
local mostSeconds = 1e9

-- Options with a value: the words for what is missing without one, and a function that takes the value into `chosen` or
-- returns what is wrong with it.
local settings = {
  ["--every"] = {
    needs = "a number of seconds",
    Take = function(chosen, word)
      local seconds = word:find("^%d+$") and tonumber(word)
      if not seconds or seconds < 1 or seconds > mostSeconds then
        return "not a whole number of seconds, at least 1"
      end
      chosen.every = seconds
      return nil
    end,
  },
  ["--exclude"] = {
    needs = "a pattern",
    Take = function(chosen, word)
      local checked, reason = pattern.Check(word)
      table.insert(chosen.exclusions, checked)
      return reason
    end,
  },
}

-- Result: nil, or a complete text for standard error.
local function takeSetting(chosen, option, word)
  local setting = settings[option]
  if not word then
    return ("kx_agent: %s needs %s\n"):format(option, setting.needs)
  end
  local reason = setting.Take(chosen, word)
  return reason and ("kx_agent: %s '%s': %s\n"):format(option, text.Printable(word), reason)
end

-- words: array of texts, as in the global `arg` (what stands at 0 and below is not looked at).
-- Result: { folders = array of paths as given, exclusions = array of checked patterns, every = seconds or nil, help =,
-- json =, list =, reset =, strict = booleans }, or nil and a complete text for standard error. --help needs no folder;
-- the words behind it do not count.
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
    elseif settings[word] then
      index = index + 1
      local problem = takeSetting(chosen, word, words[index])
      if problem then
        return nil, problem
      end
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
  elseif chosen.every and chosen.strict then
    return nil, "kx_agent: --strict is about the end of one scan, and --every has none\n"
  end
  return chosen
end

return options
