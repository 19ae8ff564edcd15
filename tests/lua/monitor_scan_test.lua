-- monitor.walk, monitor.digest and monitor.scan with vel.descriptor below them, on real folders.
local dirent = require("posix.dirent")
local errno = require("posix.errno")
local lu = require("luaunit")
local socket = require("posix.sys.socket")
local stat = require("posix.sys.stat")
local stdlib = require("posix.stdlib")
local unistd = require("posix.unistd")

local descriptor = require("vel.descriptor")
local digest = require("monitor.digest")
local scan = require("monitor.scan")
local walk = require("monitor.walk")

local isRoot = unistd.geteuid() == 0
local folder -- the temporary folder of the current test

local function createFolder()
  folder = assert(stdlib.mkdtemp("/tmp/monitor_scan_test.XXXXXX"))
end

local function removeFolder()
  assert(os.execute("chmod -R u+rwx '" .. folder .. "' && rm -rf '" .. folder .. "'"))
end

local function makeFolder(name)
  assert(stat.mkdir(folder .. "/" .. name))
end

local function makeFile(name, content)
  local file = assert(io.open(folder .. "/" .. name, "wb"))
  assert(file:write(content or "content of " .. name))
  assert(file:close())
end

local function makeLink(target, name)
  assert(unistd.link(target, folder .. "/" .. name, true))
end

local function openDescriptors()
  return #dirent.dir("/proc/self/fd")
end

-- Paths relative to the temporary folder, to keep the expectations readable.
local function shorten(path)
  local rest = path:sub(#folder + 1)
  return path:sub(1, #folder) == folder and (rest == "" and "." or rest:sub(2)) or path
end

local function nothing() end

-- Walks and records { event, path, detail } rows; `interfere` is called with the path of every file, `excludes` as
-- Excludes of the walk.
local function record(root, interfere, excludes)
  local events = {}
  local visitor = {}
  function visitor.Folder(path, depth)
    events[#events + 1] = { "Folder", shorten(path), depth }
  end
  function visitor.File(path)
    events[#events + 1] = { "File", shorten(path) }
    if interfere then
      interfere(shorten(path))
    end
  end
  function visitor.Unreadable(path, reason, isGone)
    events[#events + 1] = { "Unreadable", shorten(path), reason, isGone }
  end
  function visitor.LeftOut(path)
    events[#events + 1] = { "LeftOut", shorten(path) }
  end
  function visitor.FolderLeftOut(path, isKernel)
    events[#events + 1] = { "FolderLeftOut", shorten(path), isKernel }
  end
  visitor.Excludes = excludes
  local readable = walk.Walk(root, visitor)
  return events, readable
end

TestWalk = { setUp = createFolder, tearDown = removeFolder }

function TestWalk.testEmptyFolder()
  local events, readable = record(folder)
  lu.assertEquals(events, { { "Folder", ".", 0 } })
  lu.assertTrue(readable)
end

function TestWalk.testFilesFirstThenSubfoldersInTheOrderOfTheBytes()
  makeFolder("b")
  makeFolder("b/c")
  makeFolder("A")
  makeFile("b/c/deep")
  for _, name in ipairs({ "z", "Z", "_", "a", "aa", "\xFF", "\xC3\xA9" }) do
    makeFile(name)
  end

  lu.assertEquals(record(folder), {
    { "Folder", ".", 0 },
    { "File", "Z" },
    { "File", "_" },
    { "File", "a" },
    { "File", "aa" },
    { "File", "z" },
    { "File", "\xC3\xA9" },
    { "File", "\xFF" },
    { "Folder", "A", 1 },
    { "Folder", "b", 1 },
    { "Folder", "b/c", 2 },
    { "File", "b/c/deep" },
  })
end

function TestWalk.testOrderOfTheBytesInALocaleWithAnotherOrder()
  local before = os.setlocale(nil, "collate")
  local other
  for _, name in ipairs({ "en_US.UTF-8", "de_DE.UTF-8", "en_GB.UTF-8" }) do
    other = other or os.setlocale(name, "collate")
  end
  lu.skipIf(not other, "no such locale is installed")
  for _, name in ipairs({ "b", "A", "a", "B", "ab", "a b" }) do
    makeFile(name)
  end

  local events = record(folder)
  os.setlocale(before, "collate")

  local names = {}
  for index = 2, #events do
    names[#names + 1] = events[index][2]
  end
  lu.assertEquals(names, { "A", "B", "a", "a b", "ab", "b" })
end

function TestWalk.testOrderOfTheBytesWhateverTheLocale()
  for _, name in ipairs({ "b", "A", "a", "B", "ab", "a b", "\xFF", "\xC3\xA9" }) do
    makeFile(name)
  end

  local setlocale = os.setlocale
  os.setlocale = function() -- luacheck: ignore 122
    return "xx_XX" -- so that "<" is not trusted, on machines without such a locale too
  end
  local succeeded, events = pcall(record, folder)
  os.setlocale = setlocale -- luacheck: ignore 122

  lu.assertTrue(succeeded)
  lu.assertEquals(events, {
    { "Folder", ".", 0 },
    { "File", "A" },
    { "File", "B" },
    { "File", "a" },
    { "File", "a b" },
    { "File", "ab" },
    { "File", "b" },
    { "File", "\xC3\xA9" },
    { "File", "\xFF" },
  })
end

function TestWalk.testDotFilesAreFiles()
  makeFile(".hidden")
  makeFile("...")
  lu.assertEquals(record(folder), { { "Folder", ".", 0 }, { "File", "..." }, { "File", ".hidden" } })
end

function TestWalk.testSymbolicLinksAreNotFollowed()
  makeFolder("real")
  makeFile("real/file")
  makeLink("..", "real/loop")
  makeLink("real", "to_folder")
  makeLink("real/file", "to_file")
  makeLink("nowhere", "dangling")
  makeLink("self", "self")

  lu.assertEquals(record(folder), { { "Folder", ".", 0 }, { "Folder", "real", 1 }, { "File", "real/file" } })
end

function TestWalk.testFifosAndSocketsAreNotFiles()
  makeFile("file")
  assert(stat.mkfifo(folder .. "/fifo", 384))
  local fd = assert(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM, 0))
  assert(socket.bind(fd, { family = socket.AF_UNIX, path = folder .. "/socket" }))
  descriptor.Close(fd)

  lu.assertEquals(record(folder), { { "Folder", ".", 0 }, { "File", "file" } })
end

function TestWalk.testNamesAreAnyBytes()
  local names = { "\1\2", "line\nfeed", "quote'\"", "\xE9\xFF" }
  for _, name in ipairs(names) do
    makeFile(name)
  end
  local events = record(folder)
  for index, name in ipairs(names) do
    lu.assertEquals(events[index + 1], { "File", name })
  end
  lu.assertEquals(#events, 1 + #names)
end

function TestWalk.testRootThatCannotBeRead()
  makeFile("file")
  makeLink("nowhere", "link")
  makeLink("self", "self")
  local cases = {
    { "missing", "No such file or directory", true },
    { "file", "not a folder", true },
    { "file/below", "Not a directory", true },
    { "link", "No such file or directory", true },
    { "self", "Too many levels of symbolic links", false }, -- who knows what is there
  }
  for _, case in ipairs(cases) do
    local events, readable = record(folder .. "/" .. case[1])
    lu.assertEquals(events, { { "Folder", case[1], 0 }, { "Unreadable", case[1], case[2], case[3] } })
    lu.assertFalse(readable)
  end
end

function TestWalk.testNamedLinkToAFolderIsFollowed()
  makeFolder("target")
  makeFile("target/file")
  makeLink("target", "link")
  local events, readable = record(folder .. "/link")
  lu.assertEquals(events, { { "Folder", "link", 0 }, { "File", "link/file" } })
  lu.assertTrue(readable)
end

-- The order of "/a-b/" and "/a/", so that everything below "/a" stands together.
function TestWalk.testFoldersComeInTheOrderOfTheirPathsWithASlash()
  for _, name in ipairs({ "a", "a-b", "a.b", "a0", "a/c" }) do
    makeFolder(name)
  end
  lu.assertEquals(record(folder), {
    { "Folder", ".", 0 },
    { "Folder", "a-b", 1 },
    { "Folder", "a.b", 1 },
    { "Folder", "a", 1 },
    { "Folder", "a/c", 2 },
    { "Folder", "a0", 1 },
  })
end

function TestWalk.testWhatIsExcludedIsToldInItsPlaceAndNotEntered()
  makeFolder("b")
  makeFolder("c")
  makeFile("c/inside")
  makeFile("a.log")
  makeFile("d")
  makeLink("nowhere", "e.log")

  local asked = {}
  local events = record(folder, nil, function(path, name, status)
    asked[#asked + 1] = { shorten(path), name, status ~= nil }
    return name == "c" or name:find("%.log$") ~= nil
  end)

  lu.assertEquals(events, {
    { "Folder", ".", 0 },
    { "LeftOut", "a.log" },
    { "File", "d" },
    { "Folder", "b", 1 },
    { "FolderLeftOut", "c", false },
  })
  lu.assertEquals(asked[1], { "a.log", "a.log", true })
  lu.assertEquals(#asked, 5)
end

function TestWalk.testTheRootIsNeverExcluded()
  makeFile("file")
  local events = record(folder, nil, function(path)
    return path == folder
  end)
  lu.assertEquals(events, { { "Folder", ".", 0 }, { "File", "file" } })
end

function TestWalk.testKernelFileSystemIsToldInItsPlace()
  lu.skipIf(not isRoot, "the top folder holds what only root can read")
  local told = {}
  walk.Walk("/", {
    Folder = nothing,
    File = nothing,
    Unreadable = nothing,
    FolderLeftOut = function(path, isKernel)
      told[path] = isKernel
    end,
    Excludes = function(path)
      return path ~= "/proc" and path ~= "/sys"
    end,
    LeftOut = nothing,
  })
  lu.assertTrue(told["/proc"])
  lu.assertFalse(told["/usr"])
end

function TestWalk.testKernelFileSystemsAreLeftOutUnlessNamed()
  local proc = descriptor.LinkStatus("/proc")
  lu.assertTrue(walk.IsLeftOut(proc, "/"))
  lu.assertFalse(walk.IsLeftOut(proc, "/proc/self"))
  lu.assertFalse(walk.IsLeftOut(descriptor.LinkStatus(folder), "/"))
end

function TestWalk.testUnreadableSubfolderIsToldAndTheWalkGoesOn()
  lu.skipIf(isRoot, "root reads everything")
  makeFolder("closed")
  makeFile("closed/file")
  makeFolder("open")
  assert(stat.chmod(folder .. "/closed", 0))

  local events, readable = record(folder)
  lu.assertEquals(events, {
    { "Folder", ".", 0 },
    { "Folder", "closed", 1 },
    { "Unreadable", "closed", "Permission denied" },
    { "Folder", "open", 1 },
  })
  lu.assertTrue(readable)
end

function TestWalk.testFileAndFolderThatVanishMeanwhile()
  makeFolder("a_folder")
  makeFile("b")
  makeFile("c")
  makeFile("d")

  local events, readable = record(folder, function(path)
    if path == "b" then
      assert(os.remove(folder .. "/a_folder"))
      assert(os.remove(folder .. "/c"))
    end
  end)

  lu.assertEquals(events, {
    { "Folder", ".", 0 },
    { "File", "b" },
    { "Unreadable", "c", "No such file or directory" },
    { "File", "d" },
    { "Folder", "a_folder", 1 },
    { "Unreadable", "a_folder", "No such file or directory" },
  })
  lu.assertTrue(readable)
end

function TestWalk.testFolderReplacedByALinkIsNotEntered()
  makeFolder("a_folder")
  makeFolder("elsewhere")
  makeFile("elsewhere/secret")
  makeFile("file")

  local events = record(folder, function(path)
    if path == "file" then
      assert(os.rename(folder .. "/a_folder", folder .. "/.moved"))
      makeLink("elsewhere", "a_folder")
    end
  end)

  lu.assertEquals(events, {
    { "Folder", ".", 0 },
    { "File", "file" },
    { "Folder", "a_folder", 1 },
    { "Unreadable", "a_folder", "replaced during the scan" },
    { "Folder", "elsewhere", 1 },
    { "File", "elsewhere/secret" },
  })
end

-- Puts one folder around the other, so that no path used here gets long. `levels` names from the inside out.
local function wrap(innermost, levels)
  makeFolder("tree")
  makeFile("tree/" .. innermost)
  for _, name in ipairs(levels) do
    makeFolder("around")
    assert(os.rename(folder .. "/tree", folder .. "/around/" .. name))
    assert(os.rename(folder .. "/around", folder .. "/tree"))
  end
end

function TestWalk.testFourHundredLevels()
  local levels = {}
  for index = 1, 400 do
    levels[index] = "d"
  end
  wrap("file", levels)

  local before = openDescriptors()
  local events = record(folder .. "/tree")
  lu.assertEquals(#events, 402)
  lu.assertEquals(events[401], { "Folder", "tree" .. ("/d"):rep(400), 400 })
  lu.assertEquals(events[402], { "File", "tree" .. ("/d"):rep(400) .. "/file" })
  lu.assertEquals(openDescriptors(), before)
end

function TestWalk.testPathLongerThanTheSystemTakes()
  local name = ("n"):rep(255)
  local levels = {}
  for index = 1, 40 do
    levels[index] = name
  end
  wrap("file", levels)

  local found
  walk.Walk(folder .. "/tree", {
    Folder = function() end,
    File = function(path, reach, status)
      found = { path, digest.HashFile(reach, status, nothing) }
    end,
    Unreadable = function(_, reason)
      lu.fail(reason)
    end,
  })

  lu.assertEquals(found[1], folder .. "/tree" .. ("/" .. name):rep(40) .. "/file")
  lu.assertTrue(#found[1] > 10000)
  lu.assertEquals(found[3], #"content of tree/file")
end

function TestWalk.testErrorInAVisitorLeavesNothingOpen()
  makeFile("file")
  local before = openDescriptors()
  lu.assertErrorMsgContains("no more room", walk.Walk, folder, {
    Folder = function() end,
    File = function()
      error("no more room")
    end,
  })
  lu.assertEquals(openDescriptors(), before)
end

TestDigest = { setUp = createFolder, tearDown = removeFolder }

local function hash(name)
  local path = folder .. "/" .. name
  return digest.HashFile(path, assert(descriptor.LinkStatus(path)), nothing)
end

function TestDigest.testKnownAnswers()
  -- Source: FIPS 180-2, appendix B.1, and the digest of the empty message.
  local cases = {
    { "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855" },
    { "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad" },
  }
  for _, case in ipairs(cases) do
    makeFile("file", case[1])
    lu.assertEquals({ hash("file") }, { case[2], #case[1] })
  end
end

function TestDigest.testAgreesWithSha256sumAroundTheChunkSize()
  for _, size in ipairs({ 1, 4096, 65535, 65536, 65537, 131072, 3 * 65536 + 5, 5000000 }) do
    makeFile("file", ("0123456789\0\255\n"):rep(math.ceil(size / 13)):sub(1, size))
    local pipe = assert(io.popen("sha256sum < '" .. folder .. "/file'"))
    local expected = pipe:read("*a"):match("^(%x+)")
    assert(pipe:close())
    lu.assertEquals({ hash("file") }, { expected, size })
  end
end

function TestDigest.testMissingFile()
  makeFile("file")
  local status = assert(descriptor.LinkStatus(folder .. "/file"))
  assert(os.remove(folder .. "/file"))
  lu.assertEquals({ digest.HashFile(folder .. "/file", status, nothing) }, { nil, "No such file or directory" })
end

function TestDigest.testUnreadableFile()
  lu.skipIf(isRoot, "root reads everything")
  makeFile("file")
  assert(stat.chmod(folder .. "/file", 0))
  lu.assertEquals({ hash("file") }, { nil, "Permission denied" })
end

function TestDigest.testWhatTookTheFilesPlaceIsNotRead()
  makeFile("file")
  makeFile("other", "something else")
  local status = assert(descriptor.LinkStatus(folder .. "/file"))
  local replacements = {
    function()
      makeLink("other", "file")
    end,
    function()
      makeFile("file")
    end,
    function()
      makeFolder("file")
    end,
    function()
      assert(stat.mkfifo(folder .. "/file", 384)) -- must not wait for a writer
    end,
  }
  -- Kept under another name, so that its inode number is not given to the replacement.
  assert(os.rename(folder .. "/file", folder .. "/kept"))
  local before = openDescriptors()
  for _, replace in ipairs(replacements) do
    replace()
    local hex, reason = digest.HashFile(folder .. "/file", status, nothing)
    lu.assertNil(hex)
    if reason ~= "Too many levels of symbolic links" then -- that is the link, where luaposix has O_NOFOLLOW
      lu.assertEquals(reason, "replaced during the scan")
    end
    assert(os.remove(folder .. "/file"))
  end
  lu.assertEquals(openDescriptors(), before)
end

-- An inode number may be given to a fifo right after its file is gone.
function TestDigest.testFifoWithTheExpectedInodeNumberIsNotRead()
  assert(stat.mkfifo(folder .. "/fifo", 384))
  lu.assertEquals({ hash("fifo") }, { nil, "replaced during the scan" })
end

TestDescriptor = { setUp = createFolder, tearDown = removeFolder }

function TestDescriptor.testKindsOfWhatALinkStatusIsAbout()
  makeFile("file")
  makeLink("file", "link")
  assert(stat.mkfifo(folder .. "/fifo", 384))
  local kinds = {}
  for _, name in ipairs({ "file", "link", "fifo", "." }) do
    kinds[name] = descriptor.Kind(assert(descriptor.LinkStatus(folder .. "/" .. name)))
  end
  lu.assertEquals(kinds, { file = "file", ["."] = "folder" })
end

function TestDescriptor.testAbsenceIsNotEveryError()
  makeFile("file")
  for _, name in ipairs({ "missing", "file/below" }) do
    local _, _, code = descriptor.LinkStatus(folder .. "/" .. name)
    lu.assertTrue(descriptor.IsAbsence(code))
  end
  lu.assertFalse(descriptor.IsAbsence(errno.EACCES))
  lu.assertFalse(descriptor.IsAbsence(nil))
end

function TestDescriptor.testReadingAFolderFails()
  local fd = assert(descriptor.Open(folder))
  lu.assertEquals({ descriptor.Read(fd, 10) }, { nil, "Is a directory", errno.EISDIR })
  descriptor.Close(fd)
end

function TestDescriptor.testListingAFileFails()
  makeFile("file")
  local fd = assert(descriptor.Open(folder .. "/file"))
  lu.assertEquals({ descriptor.List(fd) }, { nil, "Not a directory", errno.ENOTDIR })
  descriptor.Close(fd)
end

function TestDescriptor.testNameTooLong()
  local expected = { nil, "File name too long", errno.ENAMETOOLONG }
  lu.assertEquals({ descriptor.Open(folder .. "/" .. ("x"):rep(256)) }, expected)
  lu.assertEquals({ descriptor.Open(("x"):rep(5000)) }, expected)
end

function TestDescriptor.testLongPathThatLeadsNowhereLeavesNothingOpen()
  local before = openDescriptors()
  local expected = { nil, "No such file or directory", errno.ENOENT }
  lu.assertEquals({ descriptor.Open(folder .. ("/."):rep(2000) .. "/missing") }, expected)
  lu.assertEquals({ descriptor.Open(folder .. ("/."):rep(2000) .. "/missing" .. ("/."):rep(2000)) }, expected)
  lu.assertEquals(openDescriptors(), before)
end

function TestDescriptor.testUseHandsOnEveryResult()
  local fd = assert(descriptor.Open(folder))
  lu.assertEquals(table.pack(descriptor.Use(fd, function(_, one, two)
    return two, nil, one, nil
  end, 1, 2)), { 2, nil, 1, nil, n = 4 })
end

TestScan = { setUp = createFolder, tearDown = removeFolder }

function TestScan.testDigestsAreThoseOfSha256sum()
  makeFolder("sub")
  makeFolder("sub/deeper")
  makeFile("empty", "")
  makeFile("line\nfeed")
  makeFile("sub/not utf-8 \xE9\xFF")
  makeFile("sub/deeper/back\\slash")
  makeFile("sub/big", ("big "):rep(100000))

  local found = {}
  lu.assertTrue(scan.Run({ folder }, {
    {
      File = function(_, path, state)
        found[shorten(path)] = state.digest
      end,
    },
  }))

  local pipe = assert(io.popen("cd '" .. folder .. "' && find . -type f -print0 | xargs -0 sha256sum -z"))
  local expected = {}
  for hex, name in pipe:read("*a"):gmatch("(%x+)  %./(%Z+)%z") do
    expected[name] = hex
  end
  assert(pipe:close())
  lu.assertNotNil(expected["line\nfeed"])
  lu.assertEquals(found, expected)
end

function TestScan.testEveryListenerHearsWhatItAskedFor()
  makeFile("file", "12345")
  local files, folders = {}, {}
  scan.Run({ folder, folder .. "/missing" }, {
    {
      File = function(_, path, state)
        files[#files + 1] = { shorten(path), state.size }
      end,
    },
    {
      Folder = function(_, path, depth)
        folders[#folders + 1] = { shorten(path), depth }
      end,
      Done = function(_, path)
        folders[#folders + 1] = { shorten(path), "done" }
      end,
    },
    {},
  })
  lu.assertEquals(files, { { "file", 5 } })
  lu.assertEquals(folders, { { ".", 0 }, { ".", "done" }, { "missing", 0 }, { "missing", "done" } })
end

function TestScan.testTellsTheStateOfAFile()
  makeFile("file", "abc")
  assert(stat.chmod(folder .. "/file", 2541)) -- 04755
  local states = {}
  scan.Run({ folder }, {
    {
      File = function(_, _, state)
        states[#states + 1] = state
      end,
    },
  })
  lu.assertEquals(states, {
    {
      digest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
      size = 3,
      mode = 2541,
      uid = unistd.geteuid(),
      gid = unistd.getegid(),
    },
  })
end

function TestScan.testReadingIsToldAsItGoesOn()
  makeFile("big", ("x"):rep(200000))
  makeFile("empty", "")
  local steps, sum = 0, 0
  scan.Run({ folder }, {
    {
      Read = function(_, bytes)
        steps, sum = steps + 1, sum + bytes
      end,
    },
  })
  lu.assertEquals(sum, 200000)
  lu.assertTrue(steps > 3)
end

function TestScan.testAListenerThatRaisesAnErrorEndsTheScan()
  makeFolder("sub")
  makeFile("sub/a")
  makeFile("sub/b")
  local before, files = openDescriptors(), 0
  lu.assertErrorMsgContains("enough", scan.Run, { folder }, {
    {
      File = function()
        files = files + 1
        error("enough")
      end,
    },
  })
  lu.assertEquals(files, 1)
  lu.assertEquals(openDescriptors(), before)
end

function TestScan.testFolderThatCannotBeReadDoesNotStopTheOthers()
  makeFile("file")
  local problems, files = {}, 0
  local listener = {
    Unreadable = function(_, path, reason)
      problems[#problems + 1] = { shorten(path), reason }
    end,
    File = function()
      files = files + 1
    end,
  }
  lu.assertFalse(scan.Run({ folder .. "/missing", folder }, { listener }))
  lu.assertEquals(problems, { { "missing", "No such file or directory" } })
  lu.assertEquals(files, 1)
end

function TestScan.testFileThatCannotBeReadIsToldAndDoesNotFailTheScan()
  lu.skipIf(isRoot, "root reads everything")
  makeFile("closed")
  makeFile("open")
  assert(stat.chmod(folder .. "/closed", 0))

  local events = {}
  lu.assertTrue(scan.Run({ folder }, {
    {
      File = function(_, path)
        events[#events + 1] = { "File", shorten(path) }
      end,
      Unreadable = function(_, path, reason)
        events[#events + 1] = { "Unreadable", shorten(path), reason }
      end,
    },
  }))
  lu.assertEquals(events, { { "Unreadable", "closed", "Permission denied" }, { "File", "open" } })
end
