-- monitor.session: one run of the monitor: scan, compare, report, and take over the new baseline.
--
-- In this order: what was found goes on record as agent events, then to standard output, and only then does the
-- baseline move on. A run that is interrupted may say a thing twice; nothing is ever lost.
--
-- Everything that reaches outside comes with `host`, a table of
--   workFolder       of the agent
--   monitorFolder    for the baseline
--   ruleNames        array of the last components of the names of the modules of rules, in order
--   Load(module)     require, or a function like it
--   Write(text)      to standard output; raises an error when that is not possible
--   Flush()          likewise
--   Complain(level, text)  to standard error and the log
--   Log(level, text)
--   Event(fields)    as dom:AgentEventWrite takes them
--   Now()            seconds of a clock that is never set
--   paint            see vel.terminal
--   IsStopping()     whether to end without a result, at once; may be missing
--   NewProgress(findTotals)  a listener with a method Clear(), or nil; findTotals() gives totals for monitor.progress
local database = require("vel.database")
local text = require("vel.text")
local baseline = require("monitor.baseline")
local baseline_file = require("monitor.baseline_file")
local compare = require("monitor.compare")
local events = require("monitor.events")
local folders = require("monitor.folders")
local json_output = require("monitor.json_output")
local own_files = require("monitor.own_files")
local policy = require("monitor.policy")
local report = require("monitor.report")
local rules = require("monitor.rules")
local scan = require("monitor.scan")
local tally = require("monitor.tally")
local text_output = require("monitor.text_output")

local session = {}

-- Exit statuses.
session.Statuses = {
  done = 0,
  incomplete = 1, -- a folder that was named, the baseline, or a module of rules could not be used
}

-- What --exclude and the modules say, in this order.
local function newPolicy(chosen, host)
  local all = rules.FromExclusions(chosen.exclusions)
  local further, active, problems = rules.Load(host.ruleNames, host.Load)
  for _, rule in ipairs(further) do
    all[#all + 1] = rule
  end
  for _, problem in ipairs(problems) do
    host.Complain("error", "these rules are not used: " .. problem)
  end
  return policy.New(all), active, problems
end

local function quotedPath(host)
  return text.Printable(baseline_file.Path(host.monitorFolder))
end

-- Result: a vel.database, or nil and the reason for an operator.
local function openBaseline(host, resets)
  local db, reason, isUnusable = baseline_file.Open(host.monitorFolder)
  if db or not isUnusable then
    return db, reason
  elseif not resets then
    return nil, reason .. "; --reset puts it aside and takes a new one"
  end
  local aside, problem = baseline_file.PutAside(host.monitorFolder)
  if not aside then
    return nil, ("%s, and it cannot be put aside: %s"):format(reason, problem)
  end
  host.Complain("warning",
    ("baseline %s: %s; it was put aside as %s"):format(quotedPath(host), reason, text.Printable(aside)))
  return baseline_file.Open(host.monitorFolder)
end

local function newExcludes(host, judgements)
  local eventFile = host.workFolder .. "/agent_events.db"
  local own = own_files.New({
    host.monitorFolder,
    host.workFolder .. "/log",
    eventFile,
    eventFile .. "-shm",
    eventFile .. "-wal",
    table.unpack(baseline_file.AllPaths(host.monitorFolder)),
  })
  return function(path, name, status)
    return judgements:Excludes(path, name) or (status ~= nil and own:Has(status))
  end
end

-- Files and bytes of the last baseline; nil when it does not have all the folders.
local function expectedTotals(found, named)
  local totals = { files = 0, bytes = 0 }
  for _, folder in ipairs(named) do
    local known = found:Totals(folder)
    if known.files == 0 then
      return nil
    end
    totals.files, totals.bytes = totals.files + known.files, totals.bytes + known.bytes
  end
  return totals
end

-- A listener that puts unreadable entries where they can be found later.
local function newUnreadableRecorder(host, found)
  return {
    Unreadable = function(_, path, reason)
      found:NoteUnreadable(path, reason)
      host.Log("warning", report.UnreadableLine(path, reason))
    end,
  }
end

-- What is raised when the host wants the run to end.
local stopped = {}

local function stopWhenAsked(host)
  if host.IsStopping and host.IsStopping() then
    error(stopped, 0)
  end
end

-- A listener that ends the scan when the host wants it to, in the middle of a file as well.
local function newStopper(host)
  local function check()
    stopWhenAsked(host)
  end
  return { Folder = check, LeftOut = check, Read = check, Unreadable = check }
end

-- Scans the folders and compares them with the baseline. Result: whether every named one could be read.
local function scanFolders(run)
  local host, found = run.host, run.found
  local told = { run.counts, run.output, newUnreadableRecorder(host, found) }
  local comparison = compare.New(found, found, {
    judge = function(path)
      return run.policy:Judge(path)
    end,
    isLinked = folders.IsLinked,
    resets = run.chosen.reset,
    hidden = function(path)
      for _, listener in ipairs(told) do
        if listener.Unreadable then
          listener:Unreadable(path, "a file system of the kernel lies over it")
        end
      end
    end,
  })
  local listeners = { newStopper(host), run.policy, comparison, table.unpack(told) }
  listeners[#listeners + 1] = run.progress
  return scan.Run(run.chosen.folders, listeners, newExcludes(host, run.policy))
end

local function addCounts(run)
  local outcome, found = run.outcome, run.found
  for field, number in pairs(run.counts:Total()) do
    outcome[field] = number
  end
  for field, number in pairs(found:Counts()) do
    outcome[field] = number
  end
  for _, folder in ipairs(outcome.folders) do
    folder.taken = found:Taken(folder.path)
  end
end

-- Whether a run among many is worth an event of its own.
local function isEventful(outcome)
  return outcome.isReset or not outcome.isComplete
    or outcome.added + outcome.changed + outcome.removed + outcome.taken > 0
end

-- The whole run with an open baseline. Raises an error when something stands in the way.
local function carryOut(run)
  local host, outcome = run.host, run.outcome
  local start = host.Now()
  local allRead = scanFolders(run)
  if run.progress then
    run.progress:Clear()
  end
  outcome.seconds = host.Now() - start
  addCounts(run)
  outcome.isComplete = allRead and #outcome.problems == 0
  local ending = outcome.isReset and "reset" or outcome.isComplete and "complete" or "incomplete"

  for change in run.found:Changes() do
    stopWhenAsked(host)
    host.Event(events.OfChange(change))
  end
  run.output:Findings(run.counts, run.found)
  host.Flush()
  if not run.chosen.every or isEventful(outcome) then
    host.Event(events.OfRun(ending, report.Summary(outcome), run.chosen.folders))
  end
  run.found:Commit()
  outcome.result = outcome.isReset and "reset" or "compared"
end

local function newOutcome(chosen, host, active, problems)
  local outcome = {
    folders = {},
    rules = active,
    problems = problems,
    baseline = baseline_file.Path(host.monitorFolder),
    isReset = chosen.reset,
    isComplete = false,
    result = "failed", -- until everything is done; then "compared" or "reset"
    reason = nil, -- of a failure
    seconds = 0,
    files = 0, bytes = 0, unreadable = 0, added = 0, changed = 0, removed = 0, taken = 0,
  }
  for index, folder in ipairs(chosen.folders) do
    outcome.folders[index] = { path = folder, taken = 0 }
  end
  return outcome
end

-- Database failures and the wish to stop as they are, everything else with the place where it happened.
local function keepFailure(problem)
  return problem == stopped and stopped or database.FailureOf(problem) or debug.traceback(tostring(problem), 2)
end

-- What was found so far is found again by the next run.
local function abandon(run)
  run.outcome.reason = "stopped before its end"
  run.host.Log("message", "monitor run stopped before its end; the baseline is the old one")
  run.output:End(run.outcome)
end

local function fail(run, reason)
  run.outcome.reason = reason
  run.host.Complain("error", ("baseline %s: %s"):format(quotedPath(run.host), reason))
  run.host.Event(events.OfRun("failed", reason, run.chosen.folders))
  run.output:End(run.outcome)
end

local function runWithBaseline(run, db)
  local succeeded, problem = xpcall(function()
    run.found = baseline.New(db)
    run.progress = run.host.NewProgress(function()
      return expectedTotals(run.found, run.chosen.folders)
    end)
    carryOut(run)
  end, keepFailure)
  if run.progress then
    run.progress:Clear()
  end
  db:Close()
  if succeeded then
    run.output:End(run.outcome)
    run.host.Flush()
    run.host.Log("message", report.Summary(run.outcome))
    return
  elseif problem == stopped then
    return abandon(run)
  end
  local failure = database.FailureOf(problem)
  if failure then
    fail(run, (baseline_file.Explain(failure.reason)))
  else
    run.host.Event(events.OfRun("failed", text.Printable(problem), run.chosen.folders))
    error(problem, 0)
  end
end

-- chosen: see monitor.options. Result: status, and whether a file was added, changed or removed.
function session.Run(chosen, host)
  local judgements, active, problems = newPolicy(chosen, host)
  local run = {
    chosen = chosen,
    host = host,
    policy = judgements,
    counts = tally.New(),
    outcome = newOutcome(chosen, host, active, problems),
    output = chosen.json and json_output.New(host.Write, chosen.list)
      or text_output.New(host.Write, host.paint, chosen.list),
  }
  local db, reason = openBaseline(host, chosen.reset)
  if db then
    runWithBaseline(run, db)
  else
    fail(run, reason)
  end
  local outcome = run.outcome
  local isDone = outcome.result ~= "failed" and outcome.isComplete
  return isDone and session.Statuses.done or session.Statuses.incomplete,
    outcome.added + outcome.changed + outcome.removed > 0
end

return session
