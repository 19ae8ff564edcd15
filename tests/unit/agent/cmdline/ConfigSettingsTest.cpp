#include "cmdline/ConfigSettings.h"

#include <string>

#include <gtest/gtest.h>

#include <wx/fileconf.h>
#include <wx/mstream.h>

#include "support/Capture.h"

namespace {

ConfigSettings Read(const std::string& text, bool isMainAgent = true, const wxString& name = L"kx_agent")
{
    wxMemoryInputStream in(text.data(), text.size());
    wxFileConfig config(in);
    return ReadConfigSettings(config, name, isMainAgent);
}

const wchar_t* const kDefaultModules = L"Appl,Cmd,Srvc,vel.Heartbeat,vel.ListenThread,vel.PluginUtils";

TEST(ConfigSettings, EverythingHasItsDefault)
{
    const ConfigSettings settings = Read("");
    EXPECT_EQ(kDefaultModules, settings.traceModules);
    EXPECT_FALSE(settings.fipsMode);
    EXPECT_FALSE(settings.fullDump);
    EXPECT_TRUE(settings.sqlite.empty());
}

TEST(ConfigSettings, TheMainAgentsModulesAreUnderTrace)
{
    EXPECT_EQ(L"Appl,Mine", Read("Trace=Appl,Mine\n").traceModules);
    EXPECT_EQ(L"", Read("Trace=\n").traceModules);
    EXPECT_EQ(kDefaultModules, Read("kx_agent.Trace=Mine\n").traceModules);
}

TEST(ConfigSettings, AnotherApplicationsModulesAreUnderItsName)
{
    EXPECT_EQ(L"Mine", Read("hello.Trace=Mine\n", false, L"hello").traceModules);
    EXPECT_EQ(L"", Read("Trace=Mine\n", false, L"hello").traceModules);
    EXPECT_EQ(L"", Read("", false, L"hello").traceModules);
}

TEST(ConfigSettings, FipsModeIsTakenAsText)
{
    EXPECT_EQ(wxString(L"1"), Read("FIPSMode=1\n").fipsMode);
    EXPECT_EQ(wxString(L"yes please"), Read("FIPSMode=yes please\n").fipsMode);
    EXPECT_EQ(wxString(), Read("FIPSMode=\n").fipsMode);
}

TEST(ConfigSettings, ADumpLevelOtherThanZeroAsksForAFullDump)
{
    EXPECT_TRUE(Read("DumpLevel=2\n").fullDump);
    EXPECT_TRUE(Read("DumpLevel=-1\n").fullDump);
    EXPECT_FALSE(Read("DumpLevel=0\n").fullDump);
}

TEST(ConfigSettings, ADumpLevelThatIsNoIntegerCountsAsAbsent)
{
    for (const char* text : {"DumpLevel=\n", "DumpLevel=yes\n", "DumpLevel=2x\n", "DumpLevel=2.5\n"})
        EXPECT_FALSE(Read(text).fullDump) << text;
}

TEST(ConfigSettings, IntegerEntriesOfTheDatabaseAreTaken)
{
    const ConfigSettings settings = Read("sqlite.config.cache=64\nsqlite.config.mmap_size=4294967296\n"
                                         "sqlite.config.busy=abc\nsqlite.config.x=12abc\nsqlite.config.y=\n"
                                         "sqlite.configuration=-5\nsqlite.other=1\nmy.sqlite.config=1\n");
    ASSERT_EQ(3u, settings.sqlite.size());
    EXPECT_EQ(L"sqlite.config.cache", settings.sqlite[0].name);
    EXPECT_EQ(64, settings.sqlite[0].value);
    EXPECT_EQ(L"sqlite.config.mmap_size", settings.sqlite[1].name);
    EXPECT_EQ(4294967296, settings.sqlite[1].value);
    EXPECT_EQ(L"sqlite.configuration", settings.sqlite[2].name);
    EXPECT_EQ(-5, settings.sqlite[2].value);
}

TEST(ConfigSettings, OnlyTheRootGroupCounts)
{
    const ConfigSettings settings = Read("[group]\nTrace=Mine\nFIPSMode=1\nDumpLevel=1\nsqlite.config.cache=64\n");
    EXPECT_EQ(kDefaultModules, settings.traceModules);
    EXPECT_FALSE(settings.fipsMode);
    EXPECT_FALSE(settings.fullDump);
    EXPECT_TRUE(settings.sqlite.empty());
}

} // namespace
