local lu = require("luaunit")
local bytewise = require("vel.bytewise")

TestBytewise = {}

local function sorted(names)
  bytewise.Sort(names)
  return names
end

local unordered = { "b", "A", "", "a b", "aa", "a", "\xFF", "B", "\xC3\xA9", "a\0", "ab" }
local ordered = { "", "A", "B", "a", "a\0", "a b", "aa", "ab", "b", "\xC3\xA9", "\xFF" }

function TestBytewise.testSortsByTheBytesAndThePrefixFirst()
  lu.assertEquals(sorted({ table.unpack(unordered) }), ordered)
end

-- Stands for a locale with an order of its own, on machines without one too.
function TestBytewise.testDoesNotTrustTheOrderOfAnotherLocale()
  local setlocale = os.setlocale
  os.setlocale = function() -- luacheck: ignore 122
    return "xx_XX"
  end
  local succeeded, names = pcall(sorted, { table.unpack(unordered) })
  os.setlocale = setlocale -- luacheck: ignore 122

  lu.assertTrue(succeeded)
  lu.assertEquals(names, ordered)
end

function TestBytewise.testNothingToSort()
  lu.assertEquals(sorted({}), {})
end
