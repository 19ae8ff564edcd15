local lu = require("luaunit")
local options = require("monitor.options")

TestOptions = {}

function TestOptions.testFoldersKeepTheirOrderAndRepetitions()
  lu.assertEquals(options.Parse({ "/usr", "/etc", "/usr" }), {
    folders = { "/usr", "/etc", "/usr" },
    exclusions = {},
    help = false,
    json = false,
    list = false,
    reset = false,
    strict = false,
  })
end

function TestOptions.testSwitchesMayStandAnywhereAndBeRepeated()
  for _, field in ipairs({ "json", "list", "reset", "strict" }) do
    local word = "--" .. field
    for _, words in ipairs({ { word, "/etc" }, { "/etc", word }, { word, "/etc", word } }) do
      local expected = { folders = { "/etc" }, exclusions = {}, help = false }
      for _, other in ipairs({ "json", "list", "reset", "strict" }) do
        expected[other] = other == field
      end
      lu.assertEquals(options.Parse(words), expected)
    end
  end
end

function TestOptions.testExclusionsKeepTheirOrder()
  local chosen = options.Parse({ "--exclude", "*.log", "/etc", "--exclude", "/etc/ssh/", "--exclude", "--list" })
  lu.assertEquals(chosen.exclusions, { "*.log", "/etc/ssh", "--list" })
  lu.assertEquals(chosen.folders, { "/etc" })
  lu.assertFalse(chosen.list)
end

function TestOptions.testExclusionWithoutAPatternIsRefused()
  local chosen, problem = options.Parse({ "/etc", "--exclude" })
  lu.assertNil(chosen)
  lu.assertEquals(problem, "kx_agent: --exclude needs a pattern\n")
end

function TestOptions.testExclusionThatCannotMatchIsRefused()
  local cases = {
    [""] = "'': empty",
    ["a/b\n"] = "'a/b\\n': with a '/' in it, a pattern has to match a whole path, and begin with '/'",
    ["100%d\\"] = "'100%d\\\\': ends in a single '\\'",
  }
  for pattern, expected in pairs(cases) do
    local chosen, problem = options.Parse({ "/etc", "--exclude", pattern })
    lu.assertNil(chosen)
    lu.assertEquals(problem, "kx_agent: --exclude " .. expected .. "\n")
  end
end

function TestOptions.testWordsBeforeTheScriptParametersDoNotCount()
  local words = { [-1] = "--bogus", [0] = "kx_agent", "/etc" }
  lu.assertEquals(options.Parse(words).folders, { "/etc" })
end

function TestOptions.testHelpNeedsNoFolderAndEndsTheParsing()
  lu.assertTrue(options.Parse({ "--help" }).help)
  lu.assertTrue(options.Parse({ "/etc", "--help", "--bogus" }).help)
end

function TestOptions.testWithoutAFolderTheProblemIsTheUsage()
  for _, words in ipairs({ {}, { "--list" } }) do
    local chosen, problem = options.Parse(words)
    lu.assertNil(chosen)
    lu.assertEquals(problem, options.Usage)
  end
end

function TestOptions.testUnknownOptionIsNamed()
  for _, word in ipairs({ "--bogus", "-l", "-", "--", "--list=1", "--helper", "--exclude=x" }) do
    local chosen, problem = options.Parse({ "/etc", word })
    lu.assertNil(chosen)
    lu.assertEquals(problem, "kx_agent: unknown option '" .. word .. "'; 'kx_agent -- --help' lists the options\n")
  end
end

function TestOptions.testUnknownOptionCannotForgeALine()
  local _, problem = options.Parse({ "-a\nkx_agent: all is well\27[2K" })
  local named = "'-a\\nkx_agent: all is well\\x1b[2K'"
  lu.assertEquals(problem, "kx_agent: unknown option " .. named .. "; 'kx_agent -- --help' lists the options\n")
end

function TestOptions.testEmptyWordIsRefused()
  local chosen, problem = options.Parse({ "" })
  lu.assertNil(chosen)
  lu.assertEquals(problem, "kx_agent: the name of a folder is empty\n")
end

function TestOptions.testUsageNamesEveryOption()
  for _, word in ipairs({ "--exclude PATTERN", "--help", "--json", "--list", "--reset", "--strict", "FOLDER..." }) do
    lu.assertStrContains(options.Usage, word)
  end
end

function TestOptions.testABeatIsAWholeNumberOfSeconds()
  lu.assertNil(options.Parse({ "/etc" }).every)
  for word, seconds in pairs({ ["1"] = 1, ["60"] = 60, ["007"] = 7, ["1000000000"] = 1e9 }) do
    lu.assertEquals(options.Parse({ "--every", word, "/etc" }).every, seconds)
  end
  for _, word in ipairs({ "0", "-1", "1.5", "", "x", "0x10", "1e3", " 1", "1000000001" }) do
    local chosen, problem = options.Parse({ "--every", word, "/etc" })
    lu.assertNil(chosen)
    lu.assertEquals(problem, ("kx_agent: --every '%s': not a whole number of seconds, at least 1\n"):format(word))
  end
  lu.assertEquals(select(2, options.Parse({ "/etc", "--every" })), "kx_agent: --every needs a number of seconds\n")
end

function TestOptions.testStrictHasNoMeaningForABeat()
  local chosen, problem = options.Parse({ "--strict", "--every", "5", "/etc" })
  lu.assertNil(chosen)
  lu.assertEquals(problem, "kx_agent: --strict is about the end of one scan, and --every has none\n")
end
