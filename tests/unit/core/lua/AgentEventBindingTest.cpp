#include <VelCore/DomBinding.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <VelCore/Clock.h>
#include <VelCore/SqliteDatabase.h>

#include "support/Database.h"
#include "support/RootDomain.h"
#include "support/Script.h"
#include "support/TempFolder.h"

using VelTest::CDatabase;

namespace {

class AgentEventBinding : public testing::Test
{
protected:
    void SetUp() override
    {
        m_dom->Set("app.path.work", m_folder.Path());
        SLB3::Push(m_script.L(), m_dom.get());
        lua_setglobal(m_script.L(), "dom");
    }
    void TearDown() override { VelCore::CSqliteDatabase::ShutdownSQLite(); }

    std::string Refusal(const std::string& argument)
    {
        EXPECT_EQ("error: ", m_script.Value("return dom:AgentEventWrite" + argument).substr(0, 7)) << argument;
        return m_script.Error();
    }

    std::string Row() const
    {
        return CDatabase(m_folder / "agent_events.db")
            .Ask("SELECT event_number, severity, description FROM agent_event ORDER BY id DESC LIMIT 1");
    }

    VelTest::CTempFolder m_folder;
    std::unique_ptr<VelCore::CDom> m_dom = VelTest::NewDomain();
    VelTest::CScript m_script;
};

TEST_F(AgentEventBinding, WritesARowAndReturnsNothing)
{
    EXPECT_EQ("0",
              m_script.Value(
                  "return select('#', dom:AgentEventWrite{event_number=7, severity='error', description='text'})"));
    EXPECT_EQ("7|3|text", Row());
}

TEST_F(AgentEventBinding, SeverityIsALevelName)
{
    const char* const cases[][2] = {{"error", "3"}, {"warning", "4"}, {"message", "5"}, {"verbose", "6"}};
    for (const auto& row : cases) {
        ASSERT_EQ(0, m_script.Run(std::string("dom:AgentEventWrite{event_number=1, severity='") + row[0] + "'}"));
        EXPECT_EQ(std::string("1|") + row[1] + "|", Row());
    }
}

TEST_F(AgentEventBinding, OnlyTheNumberIsNeeded)
{
    EXPECT_EQ(0, m_script.Run("dom:AgentEventWrite{event_number=-2147483648}"));
    EXPECT_EQ("-2147483648|5|", Row());
}

TEST_F(AgentEventBinding, NumbersAndTextsConvertAsElsewhereInLua)
{
    EXPECT_EQ(0, m_script.Run("dom:AgentEventWrite{event_number='2147483647', description=5}"));
    EXPECT_EQ("2147483647|5|5", Row());
}

TEST_F(AgentEventBinding, TheTableIsNotChanged)
{
    EXPECT_EQ("string number", m_script.Value("local t = {event_number='5', description=5} dom:AgentEventWrite(t) "
                                              "return type(t.event_number) .. ' ' .. type(t.description)"));
}

TEST_F(AgentEventBinding, TimeIsNowInBothUnits)
{
    const std::int64_t before = VelCore::TimeNowMillis();
    ASSERT_EQ(0, m_script.Run("dom:AgentEventWrite{event_number=1}"));
    const std::int64_t after = VelCore::TimeNowMillis();
    const CDatabase database(m_folder / "agent_events.db");
    const std::int64_t stored = std::stoll(database.Ask("SELECT time_ms FROM agent_event"));
    EXPECT_LE(before, stored);
    EXPECT_GE(after, stored);
    EXPECT_EQ("1", database.Ask("SELECT time_s = time_ms / 1000 FROM agent_event"));
}

TEST_F(AgentEventBinding, DescriptionKeepsAnyBytes)
{
    ASSERT_EQ(0, m_script.Run("dom:AgentEventWrite{event_number=1, description='a\\0\\255\\n'}"));
    EXPECT_EQ("6100FF0A", CDatabase(m_folder / "agent_events.db").Ask("SELECT hex(description) FROM agent_event"));
}

TEST_F(AgentEventBinding, WrongArgumentsNameMethodAndField)
{
    const char* const cases[][2] = {
        {"()", "(table expected, got no value)"},
        {"(nil)", "(table expected, got nil)"},
        {"('text')", "(table expected, got string)"},
        {"{}", "(field 'event_number': number expected, got nil)"},
        {"{event_number='x'}", "(field 'event_number': number expected, got string)"},
        {"{event_number=true}", "(field 'event_number': number expected, got boolean)"},
        {"{event_number=1.5}", "(field 'event_number': not a 32-bit integer)"},
        {"{event_number=2147483648}", "(field 'event_number': not a 32-bit integer)"},
        {"{event_number=-2147483649}", "(field 'event_number': not a 32-bit integer)"},
        {"{event_number=0/0}", "(field 'event_number': not a 32-bit integer)"},
        {"{event_number=1/0}", "(field 'event_number': not a 32-bit integer)"},
        {"{event_number=1, severity='fatal'}", "(field 'severity': unknown level 'fatal')"},
        {"{event_number=1, severity='Error'}", "(field 'severity': unknown level 'Error')"},
        {"{event_number=1, severity={}}", "(field 'severity': string expected, got table)"},
        {"{event_number=1, description=true}", "(field 'description': string expected, got boolean)"},
    };
    for (const auto& row : cases)
        EXPECT_EQ(std::string("test:1: bad argument #1 to 'AgentEventWrite' ") + row[1], Refusal(row[0])) << row[0];
    EXPECT_FALSE(VelTest::Exists(m_folder / "agent_events.db"));
}

TEST_F(AgentEventBinding, AFieldThatRaisesAnErrorLeavesNothingBehind)
{
    EXPECT_EQ("test:1: from the field",
              Refusal("(setmetatable({}, {__index = function() error('from the field') end}))"));
}

TEST_F(AgentEventBinding, AFailingWriteIsNoLuaError)
{
    m_folder.MakeFolder("agent_events.db");
    EXPECT_EQ("on", m_script.Value("dom:AgentEventWrite{event_number=1, description='kept'} return 'on'"));
    ASSERT_EQ(1U, m_script.Log().Texts(wxLOG_Error).size());
    EXPECT_NE(std::string::npos, m_script.Log().Texts(wxLOG_Error)[0].find("description=kept"));
}

} // namespace
