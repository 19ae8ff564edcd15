-- monitor.pattern: which files and folders a PATTERN means, in rules and behind --exclude. Pure.
--
-- A shell wildcard: * ? [a-z] and \ in front of a character that is meant literally. Without "/" it matches the last
-- component of a path, at any depth; with "/" the whole path, from its first "/" on. "*" does not match a "/", but it
-- does match a "." at the beginning.
local fnmatch = require("posix.fnmatch")

local pattern = {}

-- Result: the pattern without slashes at its end, or nil and why it could never match anything.
function pattern.Check(text)
  if type(text) ~= "string" then
    return nil, "not a text"
  end
  local trimmed = text:gsub("(.)/+$", "%1")
  if trimmed == "" then
    return nil, "empty"
  elseif trimmed:find("/", 1, true) and trimmed:sub(1, 1) ~= "/" then
    return nil, "with a '/' in it, a pattern has to match a whole path, and begin with '/'"
  elseif #trimmed:match("\\*$") % 2 == 1 then
    return nil, "ends in a single '\\'"
  end
  return trimmed
end

-- Whether a checked pattern is to match whole paths.
function pattern.IsOfPaths(checked)
  return checked:sub(1, 1) == "/"
end

-- Whether a checked pattern matches itself only.
function pattern.IsLiteral(checked)
  return not checked:find("[*?%[\\]")
end

-- subject: a whole path or the last component of one, as the pattern wants it
function pattern.Matches(checked, subject)
  return fnmatch.fnmatch(checked, subject, fnmatch.FNM_PATHNAME) == 0
end

return pattern
