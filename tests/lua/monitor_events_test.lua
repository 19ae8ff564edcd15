local lu = require("luaunit")
local events = require("monitor.events")

local digest = ("0123456789abcdef"):rep(4)
local other = ("fedcba9876543210"):rep(4)
local state = { digest = digest, size = 3, mode = 420, uid = 0, gid = 4294967294 }
local all = { content = true, size = true, mode = true, owner = true }

TestEvents = {}

function TestEvents.testAddedAndRemovedTellTheWholeState()
  local details = ("(content %s, size 3, mode 0644, owner 0:4294967294): /etc/new"):format(digest)
  lu.assertEquals(
    events.OfChange({ change = "added", path = "/etc/new", new = state, differs = all, severity = "error" }),
    { event_number = 7101, severity = "error", description = "file added " .. details })
  lu.assertEquals(
    events.OfChange({ change = "removed", path = "/etc/new", old = state, differs = all, severity = "warning" }),
    { event_number = 7103, severity = "warning", description = "file removed " .. details })
end

function TestEvents.testChangedTellsWhatDiffersOldAndNew()
  local new = { digest = other, size = 2 ^ 53, mode = 2541, uid = 1, gid = 2 }
  local change = { change = "changed", path = "/a", old = state, new = new, severity = "warning" }
  change.differs = all
  lu.assertEquals(events.OfChange(change), {
    event_number = 7102,
    severity = "warning",
    description = ("file changed (content %s -> %s, size 3 -> 9007199254740992, "):format(digest, other)
      .. "mode 0644 -> 4755, owner 0:4294967294 -> 1:2): /a",
  })
  change.differs = { mode = true }
  lu.assertEquals(events.OfChange(change).description, "file changed (mode 0644 -> 4755): /a")
end

function TestEvents.testNamesCannotForgeAnything()
  local event = events.OfChange({
    change = "changed",
    path = "/a\n: /etc/passwd\27[2J",
    old = state,
    new = state,
    differs = { mode = true },
    severity = "warning",
  })
  lu.assertEquals(event.description, "file changed (mode 0644 -> 0644): /a\\n: /etc/passwd\\x1b[2J")
end

function TestEvents.testRuns()
  local cases = { complete = { 7110, "message" }, incomplete = { 7111, "warning" }, reset = { 7112, "warning" },
    failed = { 7113, "error" } }
  for outcome, expected in pairs(cases) do
    lu.assertEquals(events.OfRun(outcome, "5 files", { "/etc", "/a\nb" }), {
      event_number = expected[1],
      severity = expected[2],
      description = "monitor run " .. outcome .. " (5 files): /etc, /a\\nb",
    })
  end
end
