local lu = require("luaunit")
local tally = require("monitor.tally")

TestTally = {}

function TestTally.testStartsEmpty()
  local counts = tally.New()
  lu.assertEquals(counts:Rows(), {})
  lu.assertEquals(counts:Total(), { files = 0, bytes = 0, unreadable = 0 })
end

function TestTally.testDirectFilesAndSubfoldersHaveRowsOfTheirOwn()
  local counts = tally.New()
  counts:Folder("/a", 0)
  counts:File("/a/1", { size = 10 })
  counts:File("/a/2", { size = 5 })
  counts:Folder("/a/b", 1)
  counts:File("/a/b/3", { size = 100 })
  counts:Folder("/a/c", 1) -- with nothing in it

  lu.assertEquals(counts:Rows(), {
    { folder = "/a", files = 2, bytes = 15, unreadable = 0 },
    { folder = "/a/b", files = 1, bytes = 100, unreadable = 0 },
  })
  lu.assertEquals(counts:Total(), { files = 3, bytes = 115, unreadable = 0 })
end

function TestTally.testDeeperFoldersCountForTheirSubfolder()
  local counts = tally.New()
  counts:Folder("/a", 0)
  counts:Folder("/a/b", 1)
  counts:Folder("/a/b/c", 2)
  counts:File("/a/b/c/1", { size = 1 })
  counts:Folder("/a/b/c/d", 3)
  counts:File("/a/b/c/d/2", { size = 2 })
  counts:Unreadable("/a/b/c/d/3", "Permission denied")

  lu.assertEquals(counts:Rows(), {
    { folder = "/a", files = 0, bytes = 0, unreadable = 0 },
    { folder = "/a/b", files = 2, bytes = 3, unreadable = 1 },
  })
end

function TestTally.testUnreadableFolderCountsInItsOwnRow()
  local counts = tally.New()
  counts:Folder("/a", 0)
  counts:Folder("/a/b", 1)
  counts:Unreadable("/a/b", "Permission denied")

  lu.assertEquals(counts:Rows()[1].unreadable, 0)
  lu.assertEquals(counts:Rows()[2].unreadable, 1)
  lu.assertEquals(counts:Total().unreadable, 1)
end

function TestTally.testFolderGivenTwiceIsCountedTwice()
  local counts = tally.New()
  for _ = 1, 2 do
    counts:Folder("/a", 0)
    counts:File("/a/1", { size = 7 })
  end

  local row = { folder = "/a", files = 1, bytes = 7, unreadable = 0 }
  lu.assertEquals(counts:Rows(), { row, row })
  lu.assertEquals(counts:Total(), { files = 2, bytes = 14, unreadable = 0 })
end
