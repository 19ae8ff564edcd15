-- monitor.folders and monitor.own_files, on real folders.
local lu = require("luaunit")
local stdlib = require("posix.stdlib")
local unistd = require("posix.unistd")
local descriptor = require("vel.descriptor")
local folders = require("monitor.folders")
local own_files = require("monitor.own_files")

local top -- the temporary folder of the current test, without links in its path

local fixture = {}

function fixture.setUp()
  top = assert(stdlib.realpath(assert(stdlib.mkdtemp("/tmp/monitor_folders_test.XXXXXX"))))
  assert(os.execute(("mkdir -p '%s/a/b' && ln -s a/b '%s/link'"):format(top, top)))
end

function fixture.tearDown()
  assert(os.execute("rm -rf '" .. top .. "'"))
end

TestFolders = { setUp = fixture.setUp, tearDown = fixture.tearDown }

function TestFolders.testAbsolute()
  local before = unistd.getcwd()
  assert(unistd.chdir(top .. "/a"))
  local cases = {
    ["/etc//ssh/"] = "/etc/ssh",
    ["/"] = "/",
    ["."] = top .. "/a",
    ["b/"] = top .. "/a/b",
    ["./-name"] = top .. "/a/-name",
    [".."] = top,
    ["../link"] = top .. "/link",
    ["../link/.."] = top .. "/a", -- as the system goes, not as the text looks
    ["../link/../b"] = top .. "/a/b",
    ["../missing/../x"] = top .. "/a/../missing/../x", -- whatever that may be
    ["..."] = top .. "/a/...",
    ["..a/b"] = top .. "/a/..a/b",
  }
  local found = {}
  for word in pairs(cases) do
    found[word] = folders.Absolute(word)
  end
  assert(unistd.chdir(before))
  lu.assertEquals(found, cases)
end

function TestFolders.testLinked()
  lu.assertFalse(folders.IsLinked(top .. "/a/b"))
  lu.assertTrue(folders.IsLinked(top .. "/link"))
  lu.assertFalse(folders.IsLinked(top .. "/missing"))
end

TestOwnFiles = { setUp = fixture.setUp, tearDown = fixture.tearDown }

function TestOwnFiles.testToldByWhatTheyAreNotByWhereTheyAre()
  assert(os.execute(("cd '%s' && echo x > db && ln db 'a/other name' && echo x > a/copy"):format(top)))
  local own = own_files.New({ top .. "/db", top .. "/a/b", top .. "/missing" })
  local function has(name)
    return own:Has(assert(descriptor.LinkStatus(top .. name)))
  end
  lu.assertTrue(has("/db"))
  lu.assertTrue(has("/a/other name"))
  lu.assertTrue(has("/a/b"))
  lu.assertFalse(has("/a/copy"))
  lu.assertFalse(has("/a"))
end

function TestOwnFiles.testTheSameNumberOnAnotherDeviceIsAnotherFile()
  local own = own_files.New({ top .. "/a" })
  local status = descriptor.LinkStatus(top .. "/a")
  lu.assertFalse(own:Has({ st_ino = status.st_ino, st_dev = status.st_dev + 1 }))
end
