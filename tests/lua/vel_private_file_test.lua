local lu = require("luaunit")
local stat = require("posix.sys.stat")
local stdlib = require("posix.stdlib")
local unistd = require("posix.unistd")
local private_file = require("vel.private_file")

local isRoot = unistd.geteuid() == 0
local folder -- the temporary folder of the current test

local function modeOf(path)
  return ("%04o"):format(assert(stat.lstat(path)).st_mode % 4096)
end

local function makeFile(path, content)
  local file = assert(io.open(path, "wb"))
  assert(file:write(content or ""))
  assert(file:close())
end

local fixture = {}

function fixture.setUp()
  folder = assert(stdlib.mkdtemp("/tmp/vel_private_file_test.XXXXXX"))
end

function fixture.tearDown()
  assert(os.execute("rm -rf '" .. folder .. "'"))
end

TestPrivateFolder = { setUp = fixture.setUp, tearDown = fixture.tearDown }

function TestPrivateFolder.testMadeWithAllThatIsMissingAbove()
  lu.assertEquals({ private_file.MakeFolder(folder .. "/a/b/c") }, { true })
  for _, name in ipairs({ "/a", "/a/b", "/a/b/c" }) do
    lu.assertEquals(modeOf(folder .. name), "0700")
  end
end

function TestPrivateFolder.testRightsThatAreTooWideAreTakenAway()
  assert(stat.mkdir(folder .. "/a"))
  assert(stat.chmod(folder .. "/a", 511))
  lu.assertTrue(private_file.MakeFolder(folder .. "/a"))
  lu.assertEquals(modeOf(folder .. "/a"), "0700")
end

function TestPrivateFolder.testTheUmaskDoesNotMatter()
  local before = stat.umask(511)
  local made = private_file.MakeFolder(folder .. "/a")
  stat.umask(before)
  lu.assertTrue(made)
  lu.assertEquals(modeOf(folder .. "/a"), "0700")
end

function TestPrivateFolder.testALinkIsNoFolder()
  assert(stat.mkdir(folder .. "/target"))
  assert(stat.chmod(folder .. "/target", 493))
  assert(unistd.link(folder .. "/target", folder .. "/link", true))
  lu.assertEquals({ private_file.MakeFolder(folder .. "/link") }, { false, "not a folder" })
  lu.assertEquals(modeOf(folder .. "/target"), "0755")
end

function TestPrivateFolder.testAFileIsInTheWay()
  makeFile(folder .. "/file")
  lu.assertEquals({ private_file.MakeFolder(folder .. "/file") }, { false, "not a folder" })
  lu.assertEquals({ private_file.MakeFolder(folder .. "/file/below") }, { false, "Not a directory" })
end

TestPrivateFile = { setUp = fixture.setUp, tearDown = fixture.tearDown }

function TestPrivateFile.testMadeEmpty()
  local path = folder .. "/file"
  lu.assertEquals({ private_file.MakeFile(path) }, { true })
  lu.assertEquals(modeOf(path), "0600")
  lu.assertEquals(stat.lstat(path).st_size, 0)
end

function TestPrivateFile.testWhatIsThereKeepsItsContent()
  local path = folder .. "/file"
  makeFile(path, "content")
  assert(stat.chmod(path, 438))
  lu.assertTrue(private_file.MakeFile(path))
  lu.assertEquals(modeOf(path), "0600")
  lu.assertEquals(stat.lstat(path).st_size, 7)
end

function TestPrivateFile.testLinksFifosAndFoldersAreRefused()
  makeFile(folder .. "/target", "content")
  assert(stat.chmod(folder .. "/target", 420))
  assert(unistd.link(folder .. "/target", folder .. "/link", true))
  assert(unistd.link(folder .. "/nowhere", folder .. "/dangling", true))
  assert(stat.mkfifo(folder .. "/fifo", 438))
  assert(stat.mkdir(folder .. "/folder"))
  for _, name in ipairs({ "link", "dangling", "fifo", "folder" }) do
    for _, check in ipairs({ private_file.MakeFile, private_file.RestrictFile }) do
      lu.assertEquals({ check(folder .. "/" .. name) }, { false, "not a regular file" })
    end
  end
  lu.assertEquals(modeOf(folder .. "/target"), "0644")
  lu.assertNil(stat.lstat(folder .. "/nowhere"))
end

function TestPrivateFile.testAFileWithASecondNameIsRefused()
  makeFile(folder .. "/elsewhere", "content")
  assert(stat.chmod(folder .. "/elsewhere", 420))
  assert(unistd.link(folder .. "/elsewhere", folder .. "/file", false))
  lu.assertEquals({ private_file.MakeFile(folder .. "/file") }, { false, "it has more than one name" })
  lu.assertEquals(modeOf(folder .. "/elsewhere"), "0644")
end

function TestPrivateFile.testAnotherUsersFileIsRefused()
  lu.skipIf(not isRoot, "only root can give files away")
  makeFile(folder .. "/file")
  assert(unistd.chown(folder .. "/file", 65534, 65534))
  lu.assertEquals({ private_file.MakeFile(folder .. "/file") }, { false, "it belongs to another user" })
end

function TestPrivateFile.testWhereNothingIsNothingIsRestricted()
  lu.assertEquals({ private_file.RestrictFile(folder .. "/missing") }, { true })
  lu.assertNil(stat.lstat(folder .. "/missing"))
end

function TestPrivateFile.testTheFolderIsMissing()
  lu.assertEquals({ private_file.MakeFile(folder .. "/missing/file") }, { false, "No such file or directory" })
end
