#include "lua/PackedValues.h"

#include <string>

#include <gtest/gtest.h>

#include "support/Script.h"

using VelTest::CScript;

namespace {

// What the value of the expression is in another state, as text.
class PackedValues : public testing::Test
{
protected:
    const char* Pack(const std::string& expression)
    {
        EXPECT_EQ(0, m_from.Run("return " + expression, 1)) << m_from.Error();
        const int top = lua_gettop(m_from.L());
        const char* problem = VelCore::PackValue(m_from.L(), top, m_packed);
        EXPECT_EQ(top, lua_gettop(m_from.L()));
        lua_settop(m_from.L(), 0);
        return problem;
    }

    // `show` is a Lua expression in which the value is v.
    std::string Shown(const std::string& expression, const std::string& show)
    {
        m_packed.clear();
        const char* problem = Pack(expression);
        if (problem)
            return problem;
        EXPECT_EQ(1, VelCore::PushPacked(m_to.L(), m_packed));
        lua_setglobal(m_to.L(), "v");
        EXPECT_EQ(0, lua_gettop(m_to.L()));
        return m_to.Value("return " + show);
    }

    CScript m_from;
    CScript m_to;
    std::string m_packed;
};

TEST_F(PackedValues, ScalarsKeepTheirKindAndValue)
{
    const char* const expressions[] = {"nil",  "true",   "false", "0",   "-1.5", "2^53",         "1e300",
                                       "1/0",  "-1/0",   "''",    "'5'", "'a'",  "'a\\0b\\255'", "('x'):rep(100000)",
                                       "-0.0", "2^-1074"};
    for (const char* expression : expressions) {
        const std::string same = std::string("v == ") + expression + " and type(v) == type(" + expression + ")";
        EXPECT_EQ("true", Shown(expression, same)) << expression;
    }
    EXPECT_EQ("true", Shown("0/0", "v ~= v"));
}

TEST_F(PackedValues, TablesAreCopiedWithAllThatIsInThem)
{
    EXPECT_EQ("nil", Shown("{}", "next(v)"));
    EXPECT_EQ("a,b,c 3", Shown("{'a', 'b', 'c'}", "table.concat(v, ',') .. ' ' .. #v"));
    EXPECT_EQ("5 true no 7", Shown("{x = {y = 5}, [true] = true, [1.5] = 'no', [''] = {{7}}}",
                                   "v.x.y .. ' ' .. tostring(v[true]) .. ' ' .. v[1.5] .. ' ' .. v[''][1][1]"));
    EXPECT_EQ("nil 2", Shown("{nil, 2}", "tostring(v[1]) .. ' ' .. v[2]"));
    EXPECT_EQ("1000",
              Shown("(function() local t = {} for i = 1, 1000 do t['k' .. i] = i end return t end)()", "v.k1000"));
    EXPECT_EQ("nil", Shown("setmetatable({}, {__index = {a = 1}})", "getmetatable(v)"));
}

TEST_F(PackedValues, ATableInTwoPlacesBecomesTwo)
{
    EXPECT_EQ("false", Shown("(function() local t = {} return {t, t} end)()", "v[1] == v[2]"));
}

TEST_F(PackedValues, TablesMayBeAHundredDeep)
{
    const auto nested = [](int depth) {
        return "(function() local t = {} for i = 2, " + std::to_string(depth) + " do t = {t} end return t end)()";
    };
    EXPECT_EQ("table", Shown(nested(100), "type(v)"));
    EXPECT_EQ("tables are nested too deeply", Shown(nested(101), "v"));
    EXPECT_EQ("tables are nested too deeply", Shown("(function() local t = {} t.t = t return t end)()", "v"));
}

TEST_F(PackedValues, TablesThatGrowWithEveryLevelAreRefused)
{
    EXPECT_EQ("a table holds more than 64 MiB",
              Shown("(function() local t = {} for i = 1, 60 do t = {t, t} end return t end)()", "v"));
}

TEST_F(PackedValues, OtherValuesAreRefusedWhereverTheyAre)
{
    const std::string refusal = "only strings, booleans, numbers and tables of these can be handed over";
    for (const char* value : {"print", "io.stdout", "coroutine.create(print)", "function() end"}) {
        EXPECT_EQ(refusal, Shown(value, "v"));
        EXPECT_EQ(refusal, Shown(std::string("{1, {a = ") + value + "}}", "v"));
        EXPECT_EQ(refusal, Shown(std::string("{[") + value + "] = 1}", "v"));
    }
}

TEST_F(PackedValues, SeveralValuesComeInOrder)
{
    for (const char* value : {"nil", "1", "{2}", "'three'"})
        EXPECT_EQ(nullptr, Pack(value));
    EXPECT_EQ(4, VelCore::PushPacked(m_to.L(), m_packed));
    EXPECT_TRUE(lua_isnil(m_to.L(), 1));
    EXPECT_EQ(1, lua_tointeger(m_to.L(), 2));
    EXPECT_TRUE(lua_istable(m_to.L(), 3));
    EXPECT_STREQ("three", lua_tostring(m_to.L(), 4));
    lua_settop(m_to.L(), 0);
    EXPECT_EQ(0, VelCore::PushPacked(m_to.L(), ""));
}

} // namespace
