local lu = require("luaunit")
local stdlib = require("posix.stdlib")
local database = require("vel.database")

local folder -- the temporary folder of the current test
local path

TestDatabase = {}

function TestDatabase.setUp()
  folder = assert(stdlib.mkdtemp("/tmp/vel_database_test.XXXXXX"))
  path = folder .. "/test.db"
end

function TestDatabase.tearDown()
  assert(os.execute("rm -rf '" .. folder .. "'"))
end

-- The reason for which a call failed.
local function failureOf(call, ...)
  local succeeded, problem = pcall(call, ...)
  lu.assertFalse(succeeded)
  local failure = database.FailureOf(problem)
  lu.assertNotNil(failure, tostring(problem))
  lu.assertEquals(failure.database, path)
  lu.assertEquals(tostring(failure), path .. ": " .. failure.reason)
  return failure.reason
end

local function openWithTable()
  local db = database.Open(path)
  db:Run("CREATE TABLE t(name TEXT PRIMARY KEY, number INTEGER)")
  return db
end

function TestDatabase.testValuesComeBackByTheNamesOfTheirColumns()
  local db = openWithTable()
  db:Run("INSERT INTO t VALUES(?, ?)", "a", 1)
  db:Run("INSERT INTO t VALUES(?, ?)", "b", nil)
  local rows = {}
  for row in db:Rows("SELECT name, number FROM t ORDER BY name") do
    rows[#rows + 1] = row
  end
  db:Close()
  lu.assertEquals(rows, { { name = "a", number = 1 }, { name = "b" } })
end

function TestDatabase.testTextIsAnyBytesButNul()
  local db = openWithTable()
  local name = "'; DROP TABLE t; --\n\27\xE9\xFF"
  db:Run("INSERT INTO t VALUES(?, 1)", name)
  lu.assertEquals(db:Row("SELECT name FROM t WHERE name = ?", name), { name = name })
  db:Close()
end

function TestDatabase.testTextIsOrderedByItsBytes()
  local db = openWithTable()
  local names = { "A", "a", "a b", "b", "\xC3\xA9", "\xFF" }
  for index = #names, 1, -1 do
    db:Run("INSERT INTO t VALUES(?, 1)", names[index])
  end
  local found = {}
  for row in db:Rows("SELECT name FROM t ORDER BY name") do
    found[#found + 1] = row.name
  end
  db:Close()
  lu.assertEquals(found, names)
end

-- What the module says about the binding.
function TestDatabase.testNumbersAboveThirtyTwoBitsNeedACast()
  local db = openWithTable()
  local number = 2 ^ 53 - 1
  db:Run("INSERT INTO t VALUES('a', ?)", number)
  local row = db:Row("SELECT typeof(number) AS kind, number AS plain, CAST(number AS REAL) AS exact FROM t")
  db:Close()
  lu.assertEquals(row.kind, "integer")
  lu.assertEquals(row.exact, number)
  lu.assertNotEquals(row.plain, number)
end

function TestDatabase.testRowsMayBeReadWhileOtherTablesChange()
  local db = openWithTable()
  db:Run("CREATE TABLE copy(name TEXT)")
  for index = 1, 100 do
    db:Run("INSERT INTO t VALUES(?, ?)", ("%03d"):format(index), index)
  end
  local bound = ("0"):rep(2) -- not referred to by anything else while the rows are read
  for row in db:Rows("SELECT name FROM t WHERE name > ? ORDER BY name", bound .. ("0"):rep(1)) do
    db:Run("INSERT INTO copy VALUES(?)", row.name)
    collectgarbage()
  end
  lu.assertEquals(db:Row("SELECT count(*) AS n, min(name) AS first FROM copy"), { n = 100, first = "001" })
  db:Close()
end

function TestDatabase.testIteratorStaysAtItsEnd()
  local db = openWithTable()
  local nextRow = db:Rows("SELECT name FROM t")
  lu.assertNil(nextRow())
  lu.assertNil(nextRow())
  lu.assertNil(db:Row("SELECT name FROM t"))
  db:Close()
end

function TestDatabase.testWhatIsNotCommittedIsUndone()
  local db = openWithTable()
  db:Run("BEGIN IMMEDIATE")
  db:Run("INSERT INTO t VALUES('a', 1)")
  db:Close()
  db:Close()

  db = database.Open(path)
  lu.assertEquals(db:Row("SELECT count(*) AS n FROM t").n, 0)
  db:Run("BEGIN IMMEDIATE")
  db:Run("INSERT INTO t VALUES('b', 1)")
  db:Run("COMMIT")
  db:Close()

  db = database.Open(path)
  lu.assertEquals(db:Row("SELECT count(*) AS n FROM t").n, 1)
  db:Close()
end

function TestDatabase.testClosingInTheMiddleOfRowsLetsGoOfTheFile()
  local db = openWithTable()
  for index = 1, 10 do
    db:Run("INSERT INTO t VALUES(?, 1)", tostring(index))
  end
  local nextRow = db:Rows("SELECT name FROM t")
  lu.assertNotNil(nextRow())
  db:Close()

  local other = database.Open(path)
  other:Run("BEGIN EXCLUSIVE")
  other:Close()
end

function TestDatabase.testFailuresHaveTheWordsOfTheLibrary()
  path = folder .. "/missing/test.db"
  lu.assertEquals(failureOf(database.Open, path), "unable to open database file")
  path = folder .. "/test.db"
  local db = openWithTable()
  lu.assertEquals(failureOf(db.Run, db, "SELEKT 1"), 'near "SELEKT": syntax error')
  lu.assertEquals(failureOf(db.Rows, db, "SELECT missing FROM t"), "no such column: missing")
  db:Run("INSERT INTO t VALUES('a', 1)")
  lu.assertEquals(failureOf(db.Run, db, "INSERT INTO t VALUES('a', 1)"), "UNIQUE constraint failed: t.name")
  db:Close()
end

function TestDatabase.testFailureInTheMiddleOfRows()
  local db = openWithTable()
  db:Run("INSERT INTO t VALUES('a', 1)")
  db:Run("INSERT INTO t VALUES('b', -9223372036854775807 - 1)")
  local nextRow = db:Rows("SELECT abs(number) AS number FROM t ORDER BY name")
  lu.assertEquals(failureOf(nextRow), "integer overflow")
  db:Close()
end

function TestDatabase.testLockedByAnother()
  local db, other = openWithTable(), database.Open(path)
  db:Run("BEGIN IMMEDIATE")
  lu.assertEquals(failureOf(other.Run, other, "BEGIN IMMEDIATE"), "database is locked")
  other:Close()
  db:Run("COMMIT")
  db:Close()
end

function TestDatabase.testOtherErrorsAreNotFailures()
  for _, problem in ipairs({ "text", {}, 1, true }) do
    lu.assertNil(database.FailureOf(problem))
  end
  lu.assertNil(database.FailureOf(nil))
end
