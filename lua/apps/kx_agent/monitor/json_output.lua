-- monitor.json_output: a run as one JSON document, written piece by piece. A listener of monitor.scan.
--
-- Source: docs/MONITOR.md, "JSON".
local json = require("dkjson")
local text = require("vel.text")
local policy = require("monitor.policy")

local json_output = {}
json_output.__index = json_output

local format = 1

-- The encoder writes keys that it finds here in this order, and others in no certain order.
local keyOrder = {
  "path", "path_hex", "reason", "change", "severity", "differs", "old", "new", "sha256", "size", "mode", "uid", "gid",
  "module", "rules", "files", "bytes", "unreadable", "added", "changed", "removed", "taken", "milliseconds", "result",
}

local number = {
  -- The encoder's own way with numbers keeps 14 digits.
  __tojson = function(self)
    return ("%.0f"):format(self.value)
  end,
}

-- All numbers are whole.
local function exact(value)
  return setmetatable({ value = value }, number)
end

local function array(values)
  return setmetatable(values, { __jsontype = "array" })
end

local function encode(value)
  return json.encode(value, { keyorder = keyOrder })
end

local function valid(bytes)
  return (text.ReplaceInvalid(bytes))
end

-- Adds the fields for a path: path_hex has its bytes where they are no UTF-8, and path is only nearly right then.
local function addPath(fields, path)
  local replaced
  fields.path, replaced = text.ReplaceInvalid(path)
  if replaced > 0 then
    fields.path_hex = path:gsub(".", function(byte)
      return ("%02x"):format(byte:byte())
    end)
  end
  return fields
end

local function ofState(state)
  return state and {
    sha256 = state.digest,
    size = exact(state.size),
    mode = ("%04o"):format(state.mode),
    uid = exact(state.uid),
    gid = exact(state.gid),
  }
end

local function ofChange(change)
  local differs = {}
  for _, attribute in ipairs(policy.Attributes) do
    if change.differs[attribute] then
      differs[#differs + 1] = attribute
    end
  end
  return addPath({
    change = change.change,
    severity = change.severity,
    differs = array(differs),
    old = ofState(change.old),
    new = ofState(change.new),
  }, change.path)
end

-- The document is begun at once. `write` takes text; `lists`: whether to have an entry for every file.
function json_output.New(write, lists)
  write(('{"format":%d'):format(format))
  return setmetatable({ write = write, lists = lists }, json_output)
end

local function beginField(self, name)
  self.write((',\n"%s":'):format(name))
end

local function writeField(self, name, value)
  beginField(self, name)
  self.write(encode(value))
end

-- Arrays are written element by element; one that was left half-written is closed before anything else begins.
local function writeElement(self, name, value)
  if self.array == name then
    self.write(",\n")
  else
    beginField(self, name)
    self.write("[\n")
    self.array = name
  end
  self.write(encode(value))
end

local function endArray(self)
  if self.array then
    self.write("\n]")
    self.array = nil
  end
end

-- nextValue: iterator
local function writeArray(self, name, nextValue, convert)
  endArray(self)
  for value in nextValue do
    writeElement(self, name, convert(value))
  end
  if self.array then
    endArray(self)
  else
    writeField(self, name, array({}))
  end
end

local function each(values)
  local index = 0
  return function()
    index = index + 1
    return values[index]
  end
end

function json_output:File(path, found)
  if self.lists then
    writeElement(self, "files", addPath({ sha256 = found.digest }, path))
  end
end

-- found: of monitor.baseline, which has the unreadable ones too
function json_output:Findings(_, found)
  if self.lists and not self.array then
    writeField(self, "files", array({}))
  end
  writeArray(self, "changes", found:Changes(), ofChange)
  writeArray(self, "unreadable", found:Unreadable(), function(row)
    return addPath({ reason = valid(row.reason) }, row.path)
  end)
end

local function ofFolder(folder)
  return addPath({ taken = exact(folder.taken) }, folder.path)
end

local function ofModule(module)
  return { module = valid(module.module), rules = exact(module.rules) }
end

-- outcome: see monitor.session
function json_output:End(outcome)
  writeArray(self, "folders", each(outcome.folders), ofFolder)
  writeArray(self, "rules", each(outcome.rules), ofModule)
  writeArray(self, "problems", each(outcome.problems), valid)
  writeField(self, "baseline", addPath({}, outcome.baseline))
  writeField(self, "summary", {
    files = exact(outcome.files),
    bytes = exact(outcome.bytes),
    unreadable = exact(outcome.unreadable),
    added = exact(outcome.added),
    changed = exact(outcome.changed),
    removed = exact(outcome.removed),
    taken = exact(outcome.taken),
    milliseconds = exact(outcome.seconds * 1000),
  })
  writeField(self, "complete", outcome.isComplete)
  writeField(self, "result", outcome.result)
  if outcome.reason then
    writeField(self, "reason", valid(outcome.reason))
  end
  self.write("}\n")
end

return json_output
