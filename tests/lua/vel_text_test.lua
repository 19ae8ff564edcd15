local lu = require("luaunit")
local text = require("vel.text")

-- The way back from Printable.
local function restore(printable)
  local letters = { n = "\n", r = "\r", t = "\t", ["\\"] = "\\" }
  return (printable:gsub("\\(x?)(.)(%x?)", function(hex, first, second)
    if hex == "x" then
      return string.char(tonumber(first .. second, 16))
    end
    return letters[first] .. second
  end))
end

TestPrintable = {}

function TestPrintable.testEscapesWhatIsNotPlainText()
  local cases = {
    -- bytes, text
    { "", "" },
    { "/etc/passwd", "/etc/passwd" },
    { "with blank~and[brackets]", "with blank~and[brackets]" },
    { "two\nlines", "two\\nlines" },
    { "tab\tand\rreturn", "tab\\tand\\rreturn" },
    { "\27[31mred", "\\x1b[31mred" },
    { "nul\0del\127", "nul\\x00del\\x7f" },
    { "back\\slash", "back\\\\slash" },
    { "\\n", "\\\\n" },
    { "caf\xC3\xA9", "caf\xC3\xA9" },
    { "\xE2\x82\xAC \xF0\x9F\x98\x80", "\xE2\x82\xAC \xF0\x9F\x98\x80" },
    { "\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF" }, -- U+10FFFF, the last one
  }
  for _, case in ipairs(cases) do
    lu.assertEquals(text.Printable(case[1]), case[2])
  end
end

function TestPrintable.testEscapesEachByteThatIsNotUtf8()
  local cases = {
    { "caf\xE9", "caf\\xe9" },
    { "\x80", "\\x80" },
    { "\xC0\x80", "\\xc0\\x80" }, -- overlong
    { "\xE0\x9F\xBF", "\\xe0\\x9f\\xbf" }, -- overlong
    { "\xED\xA0\x80", "\\xed\\xa0\\x80" }, -- surrogate
    { "\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80" }, -- above U+10FFFF
    { "\xFF", "\\xff" },
    { "\xC3", "\\xc3" }, -- cut short
    { "\xE2\x82", "\\xe2\\x82" },
    { "\xE2\x82x", "\\xe2\\x82x" },
    { "\xF0\x9F\x98\xC3\xA9", "\\xf0\\x9f\\x98\xC3\xA9" },
  }
  for _, case in ipairs(cases) do
    lu.assertEquals(text.Printable(case[1]), case[2])
  end
end

function TestPrintable.testEscapesCharactersThatActOnATerminalOrHide()
  local cases = {
    { "\xC2\x80", "\\xc2\\x80" },
    { "\xC2\x9B31m", "\\xc2\\x9b31m" }, -- the control sequence introducer in one character
    { "\xC2\x9F", "\\xc2\\x9f" },
    { "\xC2\xA0", "\xC2\xA0" }, -- the first character behind them
    { "\xD8\x9C", "\\xd8\\x9c" }, -- U+061C
    { "\xE2\x80\x8D", "\xE2\x80\x8D" }, -- U+200D joins visible characters
    { "\xE2\x80\x8E", "\\xe2\\x80\\x8e" }, -- U+200E
    { "\xE2\x80\xA8", "\\xe2\\x80\\xa8" }, -- U+2028, line separator
    { "exe\xE2\x80\xAEcod.txt", "exe\\xe2\\x80\\xaecod.txt" }, -- U+202E, right to left
    { "\xE2\x81\xA9", "\\xe2\\x81\\xa9" }, -- U+2069
    { "\xEF\xBB\xBF", "\\xef\\xbb\\xbf" }, -- U+FEFF
  }
  for _, case in ipairs(cases) do
    lu.assertEquals(text.Printable(case[1]), case[2])
  end
end

function TestPrintable.testCanBeReversedSoNoTwoNamesLookTheSame()
  for first = 0, 255 do
    for second = 0, 255 do
      local bytes = "a" .. string.char(first, second) .. "b"
      local printable = text.Printable(bytes)
      lu.assertNil(printable:find("%c"))
      if restore(printable) ~= bytes then
        lu.assertEquals(restore(printable), bytes)
      end
    end
  end
end

TestForXml = {}

function TestForXml.testKeepsWhatXmlHas()
  local beyondAscii = "caf\xC3\xA9 \xC2\x80 \xE2\x80\xAE \xEF\xBF\xBD \xF4\x8F\xBF\xBF"
  for _, kept in ipairs({ "", "two\nlines\tand\rmore \\n", "<&>]]>\127", beyondAscii }) do
    lu.assertEquals(text.ForXml(kept), kept)
  end
end

function TestForXml.testEscapesWhatXmlDoesNotHave()
  local cases = {
    { "\27[31mred\0", "\\x1b[31mred\\x00" },
    { "\8\11\12\14\31", "\\x08\\x0b\\x0c\\x0e\\x1f" },
    { "caf\xE9", "caf\\xe9" },
    { "\xED\xA0\x80", "\\xed\\xa0\\x80" }, -- surrogate
    { "\xEF\xBF\xBE \xEF\xBF\xBF", "\\xef\\xbf\\xbe \\xef\\xbf\\xbf" }, -- U+FFFE, U+FFFF
  }
  for _, case in ipairs(cases) do
    lu.assertEquals(text.ForXml(case[1]), case[2])
  end
end

TestThousands = {}

function TestThousands.testGroupsByThree()
  local cases = {
    { 0, "0" },
    { 7, "7" },
    { 999, "999" },
    { 1000, "1,000" },
    { 123456, "123,456" },
    { 1234567, "1,234,567" },
    { -999, "-999" },
    { -1000, "-1,000" },
    { 2 ^ 53, "9,007,199,254,740,992" },
  }
  for _, case in ipairs(cases) do
    lu.assertEquals(text.Thousands(case[1]), case[2])
  end
end

TestWidth = {}

function TestWidth.testCountsCharactersNotBytes()
  lu.assertEquals(text.Width(""), 0)
  lu.assertEquals(text.Width("abc"), 3)
  lu.assertEquals(text.Width("caf\xC3\xA9"), 4)
  lu.assertEquals(text.Width("\xE2\x82\xAC\xF0\x9F\x98\x80"), 2)
end

TestTable = {}

local columns = { { title = "name", align = "left" }, { title = "size", align = "right" } }

function TestTable.testAlignsByTheWidestCell()
  lu.assertEquals(
    text.Table(columns, { { "a", "1" }, { "longer", "12,345" } }, { "total", "12,346" }),
    "name      size\n"
      .. "------  ------\n"
      .. "a            1\n"
      .. "longer  12,345\n"
      .. "------  ------\n"
      .. "total   12,346\n"
  )
end

function TestTable.testWithoutRowsIsTitlesAndRule()
  lu.assertEquals(text.Table(columns, {}), "name  size\n----  ----\n")
end

function TestTable.testTotalsMayBeTheWidest()
  lu.assertEquals(
    text.Table(columns, { { "a", "1" } }, { "everything", "1,000,000" }),
    "name             size\n"
      .. "----------  ---------\n"
      .. "a                   1\n"
      .. "----------  ---------\n"
      .. "everything  1,000,000\n"
  )
end

function TestTable.testAlignsCharactersBeyondAscii()
  lu.assertEquals(
    text.Table(columns, { { "caf\xC3\xA9", "1" }, { "cafes", "2" } }),
    "name   size\n" .. "-----  ----\n" .. "caf\xC3\xA9      1\n" .. "cafes     2\n"
  )
end

function TestTable.testLeavesNoBlanksAtTheEndOfALine()
  lu.assertEquals(
    text.Table({ { title = "n", align = "right" }, { title = "remark", align = "left" } }, { { "1", "" } }),
    "n  remark\n-  ------\n1\n"
  )
end

TestReplaceInvalid = {}

function TestReplaceInvalid.testValidTextStaysAsItIs()
  for _, bytes in ipairs({ "", "plain", "line\nfeed\0\27", "caf\xC3\xA9", "\xF4\x8F\xBF\xBF" }) do
    lu.assertEquals({ text.ReplaceInvalid(bytes) }, { bytes, 0 })
  end
end

function TestReplaceInvalid.testEachByteThatIsNoPartOfACharacterIsReplaced()
  local replacement = "\xEF\xBF\xBD"
  local cases = {
    { "\xE9", replacement, 1 },
    { "a\xFF\xFEb", "a" .. replacement .. replacement .. "b", 2 },
    { "\xC3", replacement, 1 },
    { "\xE2\x82", replacement .. replacement, 2 },
    { "\xC3\xA9\xA9", "\xC3\xA9" .. replacement, 1 },
    { "\xED\xA0\x80", replacement:rep(3), 3 }, -- a surrogate
  }
  for _, case in ipairs(cases) do
    lu.assertEquals({ text.ReplaceInvalid(case[1]) }, { case[2], case[3] })
  end
end

TestLayout = {}

function TestLayout.testLinesComeOneByOneOnceTheWidthsAreKnown()
  local layout = text.NewLayout({ { title = "what", align = "left" }, { title = "n", align = "right" } })
  local rows = { { "a", "1,000" }, { "caf\xC3\xA9s", "" } }
  for _, row in ipairs(rows) do
    layout:Widen(row)
  end
  lu.assertEquals(layout:Titles(), "what       n\n")
  lu.assertEquals(layout:Rule(), "-----  -----\n")
  lu.assertEquals(layout:Line(rows[1]), "a      1,000\n")
  lu.assertEquals(layout:Line(rows[2]), "caf\xC3\xA9s\n")
end

function TestLayout.testPaintDoesNotMoveTheColumns()
  local layout = text.NewLayout({ { title = "what", align = "left" }, { title = "n", align = "left" } })
  local line = layout:Line({ "a", "b" }, function(cell)
    return "<" .. cell .. ">"
  end)
  lu.assertEquals(line, "<a   >  b\n")
end
