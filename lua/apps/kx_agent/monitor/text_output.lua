-- monitor.text_output: a run as text for people. A listener of monitor.scan.
local report = require("monitor.report")

local text_output = {}
text_output.__index = text_output

-- write: takes text; paint: see vel.terminal; lists: whether to print a line for every file
function text_output.New(write, paint, lists)
  return setmetatable({ write = write, paint = paint, lists = lists }, text_output)
end

function text_output:File(path, found)
  if self.lists then
    self.write(report.DigestLine(path, found.digest) .. "\n")
  end
end

function text_output:Unreadable(path, reason)
  self.write(report.UnreadableLine(path, reason) .. "\n")
end

-- counts: of monitor.tally; found: of monitor.baseline
function text_output:Findings(counts, found)
  self.write(report.FolderTable(counts:Rows(), counts:Total()) .. "\n")
  local isEmpty = true
  report.WriteChangeTable(function()
    return found:Changes()
  end, self.paint, function(piece)
    isEmpty = false
    self.write(piece)
  end)
  if not isEmpty then
    self.write("\n")
  end
end

-- outcome: see monitor.session. A run that failed has said so elsewhere.
function text_output:End(outcome)
  if outcome.result == "failed" then
    return
  end
  for _, folder in ipairs(outcome.folders) do
    if folder.taken > 0 then
      self.write(report.TakenLine(folder.path, folder.taken) .. "\n")
    end
  end
  self.write(report.RulesLine(outcome.rules) .. "\n")
  self.write(report.Summary(outcome) .. "\n")
end

return text_output
