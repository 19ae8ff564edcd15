-- monitor.rules: from modules of plug-in packages to rules of monitor.policy. Pure, but for what the modules do.
--
-- A module is taken whole or not at all. Rules only ever narrow what is watched, so without a module that cannot be
-- used more is watched and nothing less.
local text = require("vel.text")
local pattern = require("monitor.pattern")
local policy = require("monitor.policy")

local rules = {}

-- Where the modules stand.
rules.Prefix = "monitor.rules"

local isAttribute = {}
for _, attribute in ipairs(policy.Attributes) do
  isAttribute[attribute] = true
end

local function show(value)
  return type(value) == "string" and ("'%s'"):format(text.Printable(value)) or "a " .. type(value)
end

-- Checks of the fields of a rule: the value for the policy, or nil and what is wrong.
local function checkIgnore(value)
  if value ~= true then
    return nil, "can only be true"
  end
  return true
end

local function checkWatch(value)
  if type(value) ~= "table" or #value == 0 then
    return nil, "has to be an array of " .. table.concat(policy.Attributes, ", ")
  end
  local set = {}
  for _, attribute in ipairs(value) do
    if not isAttribute[attribute] then
      return nil, ("%s is none of %s"):format(show(attribute), table.concat(policy.Attributes, ", "))
    end
    set[attribute] = true
  end
  return set
end

local function checkSeverity(value)
  if not policy.Severities[value] then
    return nil, "has to be error, warning, message or verbose"
  end
  return value
end

-- name: what the author writes; field: what the policy reads
local fields = {
  { name = "match", field = "pattern", check = pattern.Check },
  { name = "ignore", field = "ignore", check = checkIgnore },
  { name = "watch", field = "watch", check = checkWatch },
  { name = "severity", field = "severity", check = checkSeverity },
}

local isField = {}
for _, field in ipairs(fields) do
  isField[field.name] = true
end

-- The first key of `written`, by its text, that `isKnown` does not have; nil when there is none.
local function findUnknown(written, isKnown)
  local unknown
  for key in pairs(written) do
    local shown = show(key)
    if not isKnown[key] and (not unknown or shown < unknown) then
      unknown = shown
    end
  end
  return unknown
end

-- Result: the rule for the policy, or nil and what is wrong.
local function readRule(written)
  if type(written) ~= "table" then
    return nil, "is not a table"
  end
  local unknown = findUnknown(written, isField)
  if unknown then
    return nil, "has an unknown field " .. unknown
  end
  local rule = {}
  for _, field in ipairs(fields) do
    local value = written[field.name]
    if value ~= nil then
      local checked, problem = field.check(value)
      if not checked then
        return nil, ("field '%s': %s"):format(field.name, problem)
      end
      rule[field.field] = checked
    end
  end
  if not rule.pattern then
    return nil, "has no field 'match'"
  elseif not (rule.ignore or rule.watch or rule.severity) then
    return nil, "says nothing: it needs 'ignore', 'watch' or 'severity'"
  elseif rule.ignore and (rule.watch or rule.severity) then
    return nil, "ignores and watches at once"
  end
  return rule
end

-- Result: array of rules, or nil and what is wrong, printable.
local function readModule(name, load)
  local loaded, written = pcall(load, name)
  if not loaded then
    return nil, text.Printable(tostring(written))
  elseif type(written) ~= "table" then
    return nil, "does not return a table"
  end
  local read = {}
  for index, entry in ipairs(written) do
    local rule, problem = readRule(entry)
    if not rule then
      return nil, ("rule %d %s"):format(index, problem)
    end
    read[index] = rule
  end
  local unknown = findUnknown(written, read)
  if unknown then
    return nil, ("has %s beside its rules"):format(unknown)
  end
  return read
end

-- names: array of the modules' names below the prefix, in order
-- load:  require, or a function like it
-- Result: array of rules in the order of the modules; array of { module =, rules = number }, what they came from;
-- array of printable texts, one for each module that cannot be used.
function rules.Load(names, load)
  local all, active, problems = {}, {}, {}
  for _, last in ipairs(names) do
    local name = rules.Prefix .. "." .. last
    local read, problem = readModule(name, load)
    if read then
      active[#active + 1] = { module = name, rules = #read }
      for _, rule in ipairs(read) do
        all[#all + 1] = rule
      end
    else
      problems[#problems + 1] = ("%s: %s"):format(text.Printable(name), problem)
    end
  end
  return all, active, problems
end

-- Rules that leave out what matches checked patterns.
function rules.FromExclusions(patterns)
  local all = {}
  for index, checked in ipairs(patterns) do
    all[index] = { pattern = checked, ignore = true }
  end
  return all
end

return rules
