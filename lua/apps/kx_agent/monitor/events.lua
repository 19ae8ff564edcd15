-- monitor.events: what the monitor puts on record as agent events. Pure.
--
-- A description is one line. What it is about stands at its end, so that no name can pass for something else.
--
-- Source: docs/MONITOR.md, "Events".
local text = require("vel.text")
local policy = require("monitor.policy")

local events = {}

events.Numbers = {
  added = 7101,
  changed = 7102,
  removed = 7103,
  complete = 7110, -- a run that could read all folders
  incomplete = 7111, -- a run that could not read all folders, or not use all rules
  reset = 7112, -- a run that took everything as it is
  failed = 7113, -- a run whose findings are not in the baseline
}

-- Texts of the attributes of a file's state.
local show = {
  content = function(state)
    return state.digest
  end,
  size = function(state)
    return ("%.0f"):format(state.size)
  end,
  mode = function(state)
    return ("%04o"):format(state.mode)
  end,
  owner = function(state)
    return ("%.0f:%.0f"):format(state.uid, state.gid)
  end,
}

-- The text of one attribute; owners are numbers, since the names that belong to them can be changed as well.
function events.Show(state, attribute)
  return show[attribute](state)
end

-- change: as monitor.baseline gives it
-- Result: the fields of dom:AgentEventWrite
function events.OfChange(change)
  local details = {}
  for _, attribute in ipairs(policy.Attributes) do
    if change.differs[attribute] then
      local old = change.old and show[attribute](change.old)
      local new = change.new and show[attribute](change.new)
      details[#details + 1] = attribute .. " " .. (old and new and old .. " -> " .. new or old or new)
    end
  end
  return {
    event_number = events.Numbers[change.change],
    severity = change.severity,
    description = ("file %s (%s): %s"):format(change.change, table.concat(details, ", "), text.Printable(change.path)),
  }
end

local severities = { complete = "message", incomplete = "warning", reset = "warning", failed = "error" }

-- outcome: "complete", "incomplete", "reset" or "failed"
-- summary: printable text
function events.OfRun(outcome, summary, folders)
  local names = {}
  for index, folder in ipairs(folders) do
    names[index] = text.Printable(folder)
  end
  return {
    event_number = events.Numbers[outcome],
    severity = severities[outcome],
    description = ("monitor run %s (%s): %s"):format(outcome, summary, table.concat(names, ", ")),
  }
end

return events
