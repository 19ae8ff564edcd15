local lu = require("luaunit")
local policy = require("monitor.policy")
local rules = require("monitor.rules")

TestRules = {}

-- A function like require for the given modules: their values, or functions that raise an error.
local function loader(modules)
  return function(name)
    local module = modules[name]
    return type(module) == "function" and module() or module
  end
end

local function load(names, modules)
  return rules.Load(names, loader(modules))
end

function TestRules.testModulesAddTheirRulesInOrder()
  local all, active, problems = load({ "a", "b" }, {
    ["monitor.rules.a"] = { { match = "*.log", ignore = true }, { match = "/etc/", severity = "error" } },
    ["monitor.rules.b"] = { { match = "x", watch = { "mode", "owner" }, severity = "verbose" } },
  })
  lu.assertEquals(all, {
    { pattern = "*.log", ignore = true },
    { pattern = "/etc", severity = "error" },
    { pattern = "x", watch = { mode = true, owner = true }, severity = "verbose" },
  })
  lu.assertEquals(active, { { module = "monitor.rules.a", rules = 2 }, { module = "monitor.rules.b", rules = 1 } })
  lu.assertEquals(problems, {})
end

function TestRules.testAModuleWithoutRulesIsFine()
  local all, active, problems = load({ "none" }, { ["monitor.rules.none"] = {} })
  lu.assertEquals({ all, problems }, { {}, {} })
  lu.assertEquals(active, { { module = "monitor.rules.none", rules = 0 } })
end

function TestRules.testWhatIsWrongIsNamed()
  local attributes, levels = "content, size, mode, owner", "error, warning, message or verbose"
  local cases = {
    { "text", "does not return a table" },
    { true, "does not return a table" },
    { { "text" }, "rule 1 is not a table" },
    { { { match = "a", ignore = true }, {} }, "rule 2 has no field 'match'" },
    { { { ignore = true } }, "rule 1 has no field 'match'" },
    { { { match = "a" } }, "rule 1 says nothing: it needs 'ignore', 'watch' or 'severity'" },
    { { { match = "", ignore = true } }, "rule 1 field 'match': empty" },
    { { { match = 5, ignore = true } }, "rule 1 field 'match': not a text" },
    { { { match = "a/b", ignore = true } },
      "rule 1 field 'match': with a '/' in it, a pattern has to match a whole path, and begin with '/'" },
    { { { match = "a", ignore = false } }, "rule 1 field 'ignore': can only be true" },
    { { { match = "a", ignore = "yes" } }, "rule 1 field 'ignore': can only be true" },
    { { { match = "a", watch = {} } }, "rule 1 field 'watch': has to be an array of " .. attributes },
    { { { match = "a", watch = "mode" } }, "rule 1 field 'watch': has to be an array of " .. attributes },
    { { { match = "a", watch = { "mtime" } } }, "rule 1 field 'watch': 'mtime' is none of " .. attributes },
    { { { match = "a", watch = { "mode", {} } } }, "rule 1 field 'watch': a table is none of " .. attributes },
    { { { match = "a", severity = "fatal" } }, "rule 1 field 'severity': has to be " .. levels },
    { { { match = "a", severity = {} } }, "rule 1 field 'severity': has to be " .. levels },
    { { { match = "a", ignore = true, watch = { "mode" } } }, "rule 1 ignores and watches at once" },
    { { { match = "a", ignore = true, severity = "error" } }, "rule 1 ignores and watches at once" },
    { { { match = "a", ignore = true, zeal = 1, color = 1 } }, "rule 1 has an unknown field 'color'" },
    { { { "a", match = "a", ignore = true } }, "rule 1 has an unknown field a number" },
    { { { match = "a", ignore = true }, title = "mine" }, "has 'title' beside its rules" },
    { { [2] = { match = "a", ignore = true } }, "has a number beside its rules" },
    { { ["a\nb"] = 1 }, "has 'a\\nb' beside its rules" },
    { function()
      error("first line\nsecond line", 0)
    end, "first line\\nsecond line" },
  }
  for _, case in ipairs(cases) do
    local all, active, problems = load({ "bad", "good" }, {
      ["monitor.rules.bad"] = case[1],
      ["monitor.rules.good"] = { { match = "g", ignore = true } },
    })
    lu.assertEquals(problems, { "monitor.rules.bad: " .. case[2] })
    lu.assertEquals(all, { { pattern = "g", ignore = true } })
    lu.assertEquals(active, { { module = "monitor.rules.good", rules = 1 } })
  end
end

function TestRules.testWithoutAModuleThatCannotBeUsedNoneOfItsRulesCount()
  local all = load({ "bad" }, { ["monitor.rules.bad"] = { { match = "a", ignore = true }, { match = "b" } } })
  lu.assertEquals(all, {})
end

function TestRules.testNamesCannotForgeALine()
  local _, _, problems = load({ "a\nb" }, {})
  lu.assertEquals(problems, { "monitor.rules.a\\nb: does not return a table" })
end

function TestRules.testExclusionsAreIgnoringRules()
  lu.assertEquals(rules.FromExclusions({ "a", "/b" }), {
    { pattern = "a", ignore = true },
    { pattern = "/b", ignore = true },
  })
end

-- The module that is shipped.
function TestRules.testVolatileFoldersAreLeftOutUnlessNamed()
  local all, _, problems = rules.Load({ "volatile" }, require)
  lu.assertEquals(problems, {})
  local judgements = policy.New(all)
  judgements:Folder("/", 0)
  for path, expected in pairs({ ["/tmp"] = true, ["/run"] = true, ["/etc"] = false, ["/var"] = false }) do
    lu.assertIs(judgements:Excludes(path, path:sub(2)), expected, path)
  end
  judgements:Folder("/tmp", 0)
  lu.assertFalse(judgements:Excludes("/tmp/file", "file"))
end
