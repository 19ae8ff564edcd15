-- vel.text: text for people. Pure functions; nothing here reads or writes.
local text = {}

-- The letter escapes that everybody reads; the other control characters become \xNN.
local letterEscapes = { ["\\"] = "\\\\", ["\n"] = "\\n", ["\r"] = "\\r", ["\t"] = "\\t" }

-- Well-formed UTF-8 beyond ASCII: lead byte range, range of the second byte, number of further bytes.
-- Source: RFC 3629, section 4.
local utf8Forms = {
  { 0xC2, 0xDF, 0x80, 0xBF, 0 },
  { 0xE0, 0xE0, 0xA0, 0xBF, 1 },
  { 0xE1, 0xEC, 0x80, 0xBF, 1 },
  { 0xED, 0xED, 0x80, 0x9F, 1 }, -- no surrogates
  { 0xEE, 0xEF, 0x80, 0xBF, 1 },
  { 0xF0, 0xF0, 0x90, 0xBF, 2 },
  { 0xF1, 0xF3, 0x80, 0xBF, 2 },
  { 0xF4, 0xF4, 0x80, 0x8F, 2 }, -- nothing above U+10FFFF
}

-- Characters that are valid and would still act on a terminal or mislead the reader.
local hiddenRanges = {
  { 0x80, 0x9F }, -- C1 control characters; some terminals take U+009B for "escape ["
  { 0x061C, 0x061C }, -- these and the next two: writing direction, can show a name in another order
  { 0x200E, 0x200F },
  { 0x202A, 0x202E },
  { 0x2028, 0x2029 }, -- line and paragraph separator
  { 0x2066, 0x2069 }, -- writing direction again
  { 0xFEFF, 0xFEFF }, -- byte-order mark, invisible
}

-- Characters that XML does not have. Source: Extensible Markup Language 1.0, "Char".
local notXmlRanges = { { 0xFFFE, 0xFFFF } }

local function isWithin(ranges, codePoint)
  for _, range in ipairs(ranges) do
    if codePoint >= range[1] and codePoint <= range[2] then
      return true
    end
  end
  return false
end

-- Length in bytes and code point of the character beyond ASCII at `position`; nil when it is not UTF-8.
local function decode(bytes, position)
  local lead, second = bytes:byte(position, position + 1)
  for _, form in ipairs(utf8Forms) do
    if lead >= form[1] and lead <= form[2] then
      if not second or second < form[3] or second > form[4] then
        return nil
      end
      local leadBits = 2 ^ (5 - form[5])
      local codePoint = (lead % leadBits) * 64 + second % 64
      for offset = 2, form[5] + 1 do
        local byte = bytes:byte(position + offset)
        if not byte or byte < 0x80 or byte > 0xBF then
          return nil
        end
        codePoint = codePoint * 64 + byte % 64
      end
      return form[5] + 2, codePoint
    end
  end
  return nil
end

local function escapeByte(byte)
  return letterEscapes[byte] or ("\\x%02x"):format(byte:byte())
end

-- `bytes` with replace(character, codePoint) in the place of every character beyond ASCII; a byte that is no part of
-- one comes alone, without a code point.
local function replaceBeyondAscii(bytes, replace)
  if not bytes:find("[\128-\255]") then
    return bytes
  end

  local pieces = {}
  local position = 1
  while position <= #bytes do
    local special = bytes:find("[\128-\255]", position)
    pieces[#pieces + 1] = bytes:sub(position, (special or 0) - 1)
    if not special then
      break
    end
    local length, codePoint = decode(bytes, special)
    position = special + (length or 1)
    pieces[#pieces + 1] = replace(bytes:sub(special, position - 1), codePoint)
  end
  return table.concat(pieces)
end

-- Escapes every byte of the characters within `ranges`, and of what is no character.
local function newEscaper(ranges)
  return function(character, codePoint)
    if codePoint and not isWithin(ranges, codePoint) then
      return character
    end
    return (character:gsub(".", escapeByte))
  end
end

local escapeHidden = newEscaper(hiddenRanges)
local escapeNotXml = newEscaper(notXmlRanges)

-- `bytes` (a file name, a word of a command line) as text that stays on its line and sends nothing to a terminal:
-- control characters, bytes that are not UTF-8, and invisible or direction-changing characters are escaped
-- (\n, \r, \t, else \xNN for each byte), and so is the backslash. Two different names never give the same text.
function text.Printable(bytes)
  if not bytes:find("[^ -%[%]-~]") then
    return bytes
  end
  bytes = bytes:gsub("[%z\1-\31\\\127]", escapeByte)
  return replaceBeyondAscii(bytes, escapeHidden)
end

-- `bytes` with only characters that XML has; the others, and bytes that are not UTF-8, become \xNN. Lines stay lines.
-- Markup is not escaped.
function text.ForXml(bytes)
  bytes = bytes:gsub("[%z\1-\8\11\12\14-\31]", escapeByte)
  return replaceBeyondAscii(bytes, escapeNotXml)
end

-- `bytes` as UTF-8: each byte that is no part of a character becomes U+FFFD. The second result is how many those were.
function text.ReplaceInvalid(bytes)
  local replaced = 0
  local valid = replaceBeyondAscii(bytes, function(character, codePoint)
    if codePoint then
      return character
    end
    replaced = replaced + 1
    return "\xEF\xBF\xBD"
  end)
  return valid, replaced
end

-- A whole number with a comma between groups of three digits: 1234567 is "1,234,567". Exact up to 2^53.
function text.Thousands(number)
  local sign, digits = ("%.0f"):format(number):match("^(-?)(%d+)$")
  return sign .. digits:reverse():gsub("(%d%d%d)", "%1,"):reverse():gsub("^,", "")
end

-- Characters of a UTF-8 text, for alignment. Double-width and combining characters count as one each.
function text.Width(line)
  local _, continuations = line:gsub("[\128-\191]", "")
  return #line - continuations
end

local function pad(cell, width, alignment)
  local blanks = (" "):rep(width - text.Width(cell))
  if alignment == "right" then
    return blanks .. cell
  end
  return cell .. blanks
end

-- A table that is laid out line by line, for more rows than fit into memory: first every row goes to Widen, then every
-- row to Line.
local layout = {}
layout.__index = layout

-- columns: array of { title = text, align = "left" or "right", isOpen = true for a last column with a ragged end }
function text.NewLayout(columns)
  local titles, widths = {}, {}
  for index, column in ipairs(columns) do
    titles[index] = column.title
    widths[index] = text.Width(column.title)
  end
  return setmetatable({ columns = columns, titles = titles, widths = widths }, layout)
end

-- row: array of printable texts, one per column
function layout:Widen(row)
  for index, cell in ipairs(row) do
    if not self.columns[index].isOpen then
      self.widths[index] = math.max(self.widths[index], text.Width(cell))
    end
  end
end

-- The row as text with a line feed, two blanks between columns, each column as wide as its widest cell, or an open
-- one as its title.
-- paintFirst: optional function from the text of the first cell to that with colours
function layout:Line(row, paintFirst)
  local cells = {}
  for index, column in ipairs(self.columns) do
    cells[index] = pad(row[index], self.widths[index], column.align)
  end
  if paintFirst then
    cells[1] = paintFirst(cells[1])
  end
  return table.concat(cells, "  "):gsub(" +$", "") .. "\n"
end

-- The line of titles.
function layout:Titles()
  return self:Line(self.titles)
end

-- A line of dashes.
function layout:Rule()
  local rules = {}
  for index, width in ipairs(self.widths) do
    rules[index] = ("-"):rep(width)
  end
  return self:Line(rules)
end

-- Lays out a whole table.
--
-- columns: see text.NewLayout
-- rows:    array of rows, a row is an array of texts, one per column
-- totals:  a last row below a rule of its own; nil for none
-- Result:  text with a line feed after every line. Cells must be printable; they are not escaped here.
function text.Table(columns, rows, totals)
  local lines = text.NewLayout(columns)
  for _, row in ipairs(rows) do
    lines:Widen(row)
  end
  lines:Widen(totals or {})

  local written = { lines:Titles(), lines:Rule() }
  for _, row in ipairs(rows) do
    written[#written + 1] = lines:Line(row)
  end
  if totals then
    written[#written + 1] = lines:Rule()
    written[#written + 1] = lines:Line(totals)
  end
  return table.concat(written)
end

return text
