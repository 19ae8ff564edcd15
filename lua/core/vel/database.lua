-- vel.database: SQLite databases, over LuaDBI (Debian's lua-dbi-sqlite3).
--
-- LuaDBI's own interface has traps; this module is where they are known:
--   - An integer comes back cut to 32 bits. Select CAST(column AS REAL): exact up to 2^53.
--   - Text comes back up to its first NUL byte; any other bytes are kept, also those that are not UTF-8.
--   - Its commit() and rollback() keep the reason of a failure to themselves. Here they are statements like all others.
--   - Bound text is not copied, and a connection does not keep its statements alive, nor they it.
--
-- Errors: raised as a failure, see FailureOf: half of a transaction must not go on. The database then is to be closed.
--
-- Tested by: tests/lua/vel_database_test.lua.
local driver = require("dbd.sqlite3")

local database = {}

-- What Open gives.
local connection = {}
connection.__index = connection

local failure = {}

function failure.__tostring(self)
  return self.database .. ": " .. self.reason
end

-- What the binding puts in front of the library's own words.
local prefixes = { "^Execute failed ", "^Fetch failed ", "^Failed to connect to database: ", "^Error [%a ]+: " }

local function raise(path, message)
  local reason = message
  for _, prefix in ipairs(prefixes) do
    reason = reason:gsub(prefix, "")
  end
  error(setmetatable({ database = path, reason = reason }, failure), 0)
end

-- A failure of a database, made from what pcall() caught: { database = path, reason = text }; nil for any other error.
function database.FailureOf(problem)
  return getmetatable(problem) == failure and problem or nil
end

-- Opens the file, or creates it; nothing is read or written yet. The path is absolute; links in it are followed.
-- Result: an object with the methods Run, Rows, Row and Close.
function database.Open(path)
  local handle, problem = driver.New(path)
  if not handle then
    raise(path, problem)
  end
  handle:autocommit(true) -- transactions begin and end where the caller says so
  return setmetatable({ path = path, handle = handle, prepared = {}, open = {} }, connection)
end

-- bound: what the statement may look at for as long as it is open, kept alive here
local function prepare(self, sql, bound)
  local statement, problem = self.handle:prepare(sql)
  if not statement then
    raise(self.path, problem)
  end
  self.open[statement] = bound
  return statement
end

local function execute(self, statement, ...)
  local succeeded, problem = statement:execute(...)
  if not succeeded then
    raise(self.path, problem)
  end
end

-- Runs one statement that gives no rows. The values take the places of its "?": nil, boolean, number or text.
-- Statements are prepared once and kept, so `sql` is a constant text.
function connection:Run(sql, ...)
  local statement = self.prepared[sql]
  if not statement then
    statement = prepare(self, sql, {})
    self.prepared[sql] = statement
  end
  execute(self, statement, ...)
end

-- For one statement that gives rows: a function that returns the next row, a table by the names of its columns, and nil
-- at the end. Null is nil.
function connection:Rows(sql, ...)
  local statement = prepare(self, sql, { ... })
  execute(self, statement, ...)
  return function()
    if not statement then
      return nil
    end
    local fetched, row = pcall(statement.fetch, statement, true)
    if not fetched then
      raise(self.path, row)
    elseif not row then
      statement:close()
      self.open[statement] = nil
      statement = nil
    end
    return row
  end
end

-- The first row; nil when there is none. The statement should not give more than one.
function connection:Row(sql, ...)
  local row
  for each in self:Rows(sql, ...) do
    row = row or each
  end
  return row
end

-- What was not committed is undone. Safe to call again.
function connection:Close()
  for statement in pairs(self.open) do
    statement:close()
  end
  self.open, self.prepared = {}, {}
  self.handle:close()
end

return database
