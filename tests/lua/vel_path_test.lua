local lu = require("luaunit")
local path = require("vel.path")

TestPath = {}

function TestPath.testTidy()
  local cases = {
    ["/"] = "/",
    ["//"] = "/",
    ["/./"] = "/",
    ["/etc/"] = "/etc",
    ["//etc///ssh//"] = "/etc/ssh",
    ["/etc/./ssh/."] = "/etc/ssh",
    ["/a/../b"] = "/a/../b", -- a matter of links, which is not for text to decide
    ["/..."] = "/...",
    ["/line\nfeed/\xFF"] = "/line\nfeed/\xFF",
  }
  for given, expected in pairs(cases) do
    lu.assertEquals(path.Tidy(given), expected)
  end
end

function TestPath.testParentAndName()
  local cases = {
    { "/", nil, "" },
    { "/etc", "/", "etc" },
    { "/etc/ssh", "/etc", "ssh" },
    { "/a\n/b\n", "/a\n", "b\n" },
  }
  for _, case in ipairs(cases) do
    lu.assertEquals(path.Parent(case[1]), case[2])
    lu.assertEquals(path.Name(case[1]), case[3])
  end
end

function TestPath.testJoin()
  lu.assertEquals(path.Join("/", "etc"), "/etc")
  lu.assertEquals(path.Join("/etc", "ssh"), "/etc/ssh")
end

function TestPath.testSlashAtTheEnd()
  for _, of in ipairs({ "/", "/etc", "/etc/ssh" }) do
    lu.assertEquals(path.WithSlash(of):sub(-1), "/")
    lu.assertEquals(path.WithoutSlash(path.WithSlash(of)), of)
  end
  lu.assertEquals(path.WithSlash("/"), "/")
  lu.assertEquals(path.WithSlash("/etc"), "/etc/")
end
