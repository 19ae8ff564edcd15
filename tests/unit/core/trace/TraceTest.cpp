#include <VelCore/Trace.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>

#include <unistd.h>

#include <gtest/gtest.h>

#include <wx/log.h>

#include "support/Capture.h"
#include "support/RootDomain.h"
#include "support/TempFolder.h"

using VelCore::LogTrace;
using VelCore::LogTraceIsEnabled;

namespace {

class Trace : public testing::Test
{
protected:
    void SetUp() override
    {
        m_root->Set("app.path.work", m_folder / "work");
        m_root->Set("app.name", "traced");
    }

    std::string LogText() const { return VelTest::ReadFile(m_folder / "work/log/traced.log"); }

    VelTest::CTempFolder m_folder;
    std::unique_ptr<VelCore::CDom> m_root = VelTest::NewRootDomain();
};

TEST_F(Trace, NoModuleIsEnabledAtFirst)
{
    EXPECT_FALSE(LogTraceIsEnabled(L"Appl"));
    EXPECT_FALSE(LogTraceIsEnabled(L""));
}

TEST_F(Trace, EnabledModulesAreTheUnionOfBothLists)
{
    m_root->Set("app.trace", "Appl,Cmd");
    m_root->Set("app.trace+", "Srvc");
    for (const wchar_t* module : {L"Appl", L"Cmd", L"Srvc"})
        EXPECT_TRUE(LogTraceIsEnabled(module)) << module;
    for (const wchar_t* module : {L"appl", L"App", L"Appl,Cmd", L"Appls", L"", L"*"})
        EXPECT_FALSE(LogTraceIsEnabled(module)) << module;
}

TEST_F(Trace, AStarInEitherListNamesEveryModule)
{
    m_root->Set("app.trace", "*");
    EXPECT_TRUE(LogTraceIsEnabled(L"anything"));
    m_root->Set("app.trace", "Appl");
    EXPECT_FALSE(LogTraceIsEnabled(L"anything"));
    m_root->Set("app.trace+", "Cmd,*");
    EXPECT_TRUE(LogTraceIsEnabled(L"anything"));
}

TEST_F(Trace, AStarInsideAWordIsNoPattern)
{
    m_root->Set("app.trace", "App*,vel.*");
    EXPECT_FALSE(LogTraceIsEnabled(L"Appl"));
    EXPECT_FALSE(LogTraceIsEnabled(L"vel.x"));
}

TEST_F(Trace, BlanksAndEmptyPiecesInAListDoNotCount)
{
    m_root->Set("app.trace", " Appl ,,\tCmd\t, ,");
    EXPECT_TRUE(LogTraceIsEnabled(L"Appl"));
    EXPECT_TRUE(LogTraceIsEnabled(L"Cmd"));
    EXPECT_FALSE(LogTraceIsEnabled(L""));
    EXPECT_FALSE(LogTraceIsEnabled(L" "));
}

TEST_F(Trace, AChangeCountsFromTheNextCall)
{
    m_root->Set("app.trace", "Appl");
    EXPECT_TRUE(LogTraceIsEnabled(L"Appl"));
    m_root->Set("app.trace", "Cmd");
    EXPECT_FALSE(LogTraceIsEnabled(L"Appl"));
    m_root->Set("app.trace+", "Appl");
    EXPECT_TRUE(LogTraceIsEnabled(L"Appl"));
    m_root->Remove("app.trace+");
    EXPECT_FALSE(LogTraceIsEnabled(L"Appl"));
}

TEST_F(Trace, EveryListedNameIsOnAndNoOther)
{
    std::string list;
    for (int i = 0; i < 100; i += 2)
        list += "module." + std::to_string(i) + ",";
    m_root->Set("app.trace", list);
    for (int round = 0; round < 2; ++round) { // the second one is asked when the lists are known
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(i % 2 == 0, LogTraceIsEnabled("module." + std::to_string(i))) << i;
    }
}

TEST_F(Trace, AChangeByAnotherThreadCountsAsSoonAsItIsMade)
{
    const wxString module(L"Appl");
    std::atomic<int> made{0};
    std::atomic<int> seen{0};
    std::atomic<int> wrong{0};
    const int changes = 20000;
    std::thread asker([&] {
        for (int change = 1; change <= changes; ++change) {
            while (made != change) {
                LogTraceIsEnabled(module); // and races with the change
            }
            wrong += LogTraceIsEnabled(module) == (change % 2 == 1) ? 0 : 1;
            seen = change;
        }
    });
    for (int change = 1; change <= changes; ++change) {
        m_root->Set("app.trace", change % 2 == 1 ? "Appl" : "Cmd");
        made = change;
        while (seen != change)
            std::this_thread::yield();
    }
    asker.join();
    EXPECT_EQ(0, wrong);
}

TEST_F(Trace, AChangeCountsInThreadsThatHaveAskedBefore)
{
    std::atomic<int> step{0};
    bool before = true;
    bool after = false;
    std::thread other([&] {
        before = LogTraceIsEnabled(L"Appl");
        step = 1;
        while (step != 2)
            std::this_thread::yield();
        after = LogTraceIsEnabled(L"Appl");
    });
    while (step != 1)
        std::this_thread::yield();
    m_root->Set("app.trace", "Appl");
    step = 2;
    other.join();
    EXPECT_FALSE(before);
    EXPECT_TRUE(after);
}

TEST_F(Trace, WithoutARootDomainNothingIsEnabled)
{
    m_root->Set("app.trace", "*");
    EXPECT_TRUE(LogTraceIsEnabled(L"Appl"));
    m_root.reset();
    EXPECT_FALSE(LogTraceIsEnabled(L"Appl"));
}

TEST_F(Trace, AnotherRootDomainBringsItsOwnLists)
{
    m_root->Set("app.trace", "Appl");
    EXPECT_TRUE(LogTraceIsEnabled(L"Appl"));
    m_root = VelTest::NewRootDomain();
    EXPECT_FALSE(LogTraceIsEnabled(L"Appl"));
}

TEST_F(Trace, RecordNamesModuleFunctionFileAndLine)
{
    m_root->Set("app.trace", "Appl");
    LogTrace(L"Appl", "/home/dev/shell/AgentApp_Lifecycle.cpp", 42, "OnInit", L"caf\x00E9");
    std::string record = LogText();
    const auto stampEnd = record.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(record.size(), 19));
    std::replace_if(
        record.begin(), stampEnd, [](char c) { return c >= '0' && c <= '9'; }, 'd');
    EXPECT_EQ("dddd-dd-dd dd:dd:dd [" + std::to_string(getpid()) +
                  "] Trace: Appl: OnInit (AgentApp_Lifecycle.cpp:42): caf\xC3\xA9\n",
              record);
}

TEST_F(Trace, AFileWithoutAFolderIsShownWhole)
{
    m_root->Set("app.trace", "Appl");
    LogTrace(L"Appl", "a.cpp", 1, "f", L"text");
    EXPECT_NE(std::string::npos, LogText().find("Trace: Appl: f (a.cpp:1): text\n")) << LogText();
}

TEST_F(Trace, RecordIsOneLineWhateverItsParts)
{
    m_root->Set("app.trace", "*");
    LogTrace(L"m\n", "f\n.cpp", 1, "g\n", L"a\nb");
    EXPECT_NE(std::string::npos, LogText().find("Trace: m\\n: g\\n (f\\n.cpp:1): a\\nb\n")) << LogText();
    EXPECT_EQ(1u, VelTest::Lines(LogText()).size());
}

TEST_F(Trace, AModuleThatIsOffWritesNothing)
{
    m_root->Set("app.trace", "Appl");
    LogTrace(L"Cmd", "f.cpp", 1, "g", L"text");
    EXPECT_FALSE(VelTest::Exists(m_folder / "work"));
}

TEST_F(Trace, TheEndOfAThreadMayBeTraced)
{
    struct AtEnd
    {
        ~AtEnd() { LogTrace(L"Ends", "end.cpp", 1, "end", L"last"); }
    };
    m_root->Set("app.trace", "Ends");
    std::thread([] {
        thread_local const AtEnd t_atEnd; // made ahead of what the thread keeps for its records, so it ends behind that
        static_cast<void>(t_atEnd);
        LogTrace(L"Ends", "end.cpp", 1, "end", L"first");
    }).join();
    EXPECT_NE(std::string::npos, LogText().find("Trace: Ends: end (end.cpp:1): first\n")) << LogText();
    EXPECT_NE(std::string::npos, LogText().find("Trace: Ends: end (end.cpp:1): last\n")) << LogText();
}

TEST_F(Trace, RecordsDoNotPassTheFrameworksLevelOrSwitch)
{
    m_root->Set("app.trace", "Appl");
    const wxLogLevel level = wxLog::GetLogLevel();
    wxLog::SetLogLevel(wxLOG_FatalError);
    {
        const wxLogNull silence;
        LogTrace(L"Appl", "f.cpp", 1, "g", L"text");
    }
    wxLog::SetLogLevel(level);
    EXPECT_EQ(1u, VelTest::Lines(LogText()).size());
}

} // namespace
