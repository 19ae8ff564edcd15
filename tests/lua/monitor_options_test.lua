local lu = require("luaunit")
local options = require("monitor.options")

TestOptions = {}

function TestOptions.testFoldersKeepTheirOrderAndRepetitions()
  local chosen = options.Parse({ "/usr", "/etc", "/usr" })
  lu.assertEquals(chosen, { folders = { "/usr", "/etc", "/usr" }, list = false, help = false })
end

function TestOptions.testListMayStandAnywhere()
  for _, words in ipairs({ { "--list", "/etc" }, { "/etc", "--list" }, { "--list", "/etc", "--list" } }) do
    lu.assertEquals(options.Parse(words), { folders = { "/etc" }, list = true, help = false })
  end
end

function TestOptions.testWordsBeforeTheScriptParametersDoNotCount()
  local words = { [-1] = "--bogus", [0] = "kx_agent", "/etc" }
  lu.assertEquals(options.Parse(words).folders, { "/etc" })
end

function TestOptions.testTrailingSlashesAreRemoved()
  local cases = { ["/etc/"] = "/etc", ["a//"] = "a", ["/"] = "/", ["//"] = "/", ["a/b"] = "a/b", ["/x/./"] = "/x/." }
  for word, folder in pairs(cases) do
    lu.assertEquals(options.Parse({ word }).folders, { folder })
  end
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
  for _, word in ipairs({ "--bogus", "-l", "-", "--", "--list=1", "--helper" }) do
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
  lu.assertStrContains(options.Usage, "--list")
  lu.assertStrContains(options.Usage, "--help")
  lu.assertStrContains(options.Usage, "FOLDER...")
end

if (arg[0] or ""):find("monitor_options_test%.lua$") then
  os.exit(lu.LuaUnit.run())
end
