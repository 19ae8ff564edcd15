-- monitor.policy: from rules in order to what is watched, how, and what is left out. Pure.
--
-- A rule counts for what its pattern matches and, where that is a folder, for everything below it. The first rule that
-- counts for a path decides. What an ignoring rule leaves out is not entered, so no rule can bring back a part of it.
-- The folders that were named are meant: no rule leaves them out.
--
-- Shape of a rule: { pattern = checked by monitor.pattern, ignore = true or nil, watch = set of attributes or nil,
-- severity = level or nil }.
local path = require("vel.path")
local pattern = require("monitor.pattern")

local policy = {}
policy.__index = policy

-- Everything that a change can be about, in the order in which it is shown.
policy.Attributes = { "content", "size", "mode", "owner" }

-- Levels for a change, as dom:AgentEventWrite takes them.
policy.Severities = { error = true, warning = true, message = true, verbose = true }

policy.DefaultSeverity = "warning"

local allAttributes = {}
for _, attribute in ipairs(policy.Attributes) do
  allAttributes[attribute] = true
end

local noRule = math.huge -- comes after every rule

-- Most patterns are plain names or paths; those cost one look into a table however many there are.
function policy.New(rules)
  local self = setmetatable({ rules = rules, byName = {}, byPath = {}, wildcards = {}, counting = {} }, policy)
  for index, rule in ipairs(rules) do
    local isOfPaths = pattern.IsOfPaths(rule.pattern)
    if pattern.IsLiteral(rule.pattern) then
      local literals = isOfPaths and self.byPath or self.byName
      literals[rule.pattern] = literals[rule.pattern] or index
    else
      table.insert(self.wildcards, { index = index, pattern = rule.pattern, isOfPaths = isOfPaths })
    end
  end
  return self
end

-- The number of the first rule that matches, when it comes before `limit`; else `limit`.
local function find(self, whole, name, limit)
  local first = limit
  local ofName, ofPath = self.byName[name], self.byPath[whole]
  if ofName and ofName < first then
    first = ofName
  end
  if ofPath and ofPath < first then
    first = ofPath
  end
  for _, wildcard in ipairs(self.wildcards) do
    if wildcard.index >= first then
      break
    end
    if pattern.Matches(wildcard.pattern, wildcard.isOfPaths and whole or name) then
      return wildcard.index
    end
  end
  return first
end

-- The number of the first rule that counts for a folder that was named, ignoring ones aside.
local function findForRoot(self, root)
  local first = noRule
  local at = root
  while at do
    for index, rule in ipairs(self.rules) do
      local isMatch = not rule.ignore
        and pattern.Matches(rule.pattern, pattern.IsOfPaths(rule.pattern) and at or path.Name(at))
      if isMatch and index < first then
        first = index
      end
    end
    at = path.Parent(at)
  end
  return first
end

-- A listener of monitor.scan, so that Excludes knows which rules count for the folder.
function policy:Folder(folder, depth)
  if depth == 0 then
    self.root = folder
    self.counting[0] = findForRoot(self, folder)
  else
    self.counting[depth] = find(self, folder, path.Name(folder), self.counting[depth - 1])
  end
  self.depth = depth
end

-- Whether an entry of the folder that was entered last is left out.
function policy:Excludes(whole, name)
  local first = find(self, whole, name, self.counting[self.depth])
  return first ~= noRule and self.rules[first].ignore == true
end

-- What to do about anything below the folder that was named last, also when it is not there any more.
-- Result: { ignore = boolean, watch = set of attributes, severity = level }
function policy:Judge(whole)
  local below = {}
  local at = whole
  while at and at ~= self.root do
    table.insert(below, 1, at)
    at = path.Parent(at)
  end

  local first = self.counting[0]
  for _, step in ipairs(below) do
    first = find(self, step, path.Name(step), first)
    if self.rules[first] and self.rules[first].ignore then
      break
    end
  end
  local rule = self.rules[first] or {}
  return {
    ignore = rule.ignore == true,
    watch = rule.watch or allAttributes,
    severity = rule.severity or policy.DefaultSeverity,
  }
end

return policy
