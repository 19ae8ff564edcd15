#include "AgentApp.h"

#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sqlite3.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <wx/filename.h>
#include <wx/mstream.h>
#include <wx/zipstrm.h>

#include <lua.hpp>

#include <VelCore/Dom.h>
#include <VelCore/SqliteDatabase.h>
#include <VelCore/Utf8.h>

#include "support/Capture.h"
#include "support/TempFolder.h"

using VelCore::CDom;
using VelTest::CDescriptorCapture;

using Texts = std::vector<std::string>;

namespace {

// An application object in place of the test program's own.
class CInstalledApp
{
public:
    CInstalledApp() : m_previous(wxAppConsole::GetInstance())
    {
        app.reset(new CAgentApp);
        app->SetAppName(L"probe");
    }
    ~CInstalledApp()
    {
        app.reset();
        wxAppConsole::SetInstance(m_previous);
    }
    CInstalledApp(const CInstalledApp&) = delete;
    CInstalledApp& operator=(const CInstalledApp&) = delete;

    std::unique_ptr<CAgentApp> app;

private:
    wxAppConsole* m_previous;
};

class AgentApp : public testing::Test
{
protected:
    void SetUp() override
    {
        m_folder.MakeFolder("bin");
        Dom().Set("app.path.bin", m_folder / "bin");
        Dom().Set("app.path.work", m_folder / "work");
        Dom().Set("app.name", "probe");
    }

    CAgentApp& App() { return *m_installed.app; }
    static CDom& Dom() { return *CDom::Root(); }

    std::string LogText() const { return VelTest::ReadFile(m_folder / "work/log/probe.log"); }

    // The texts of the trace records, from the function's name on and without place.
    Texts Traced() const
    {
        Texts texts;
        for (const std::string& line : VelTest::Lines(LogText())) {
            const std::size_t at = line.find("Trace: Appl: ");
            EXPECT_NE(std::string::npos, at) << line;
            const std::size_t open = line.find(" (", at);
            texts.push_back(line.substr(at + 13, open - at - 13) + line.substr(line.find("): ", open) + 1));
        }
        return texts;
    }

    VelTest::CTempFolder m_folder;
    VelTest::CLogCapture m_log;
    CInstalledApp m_installed;
};

template <typename Thrown>
void ReportThrown(CAgentApp& app, Thrown thrown)
{
    try {
        throw thrown;
    } catch (...) {
        app.OnUnhandledException();
    }
}

TEST_F(AgentApp, ItsDomainIsTheRoot)
{
    ASSERT_NE(nullptr, CDom::Root());
    EXPECT_EQ(&App(), wxAppConsole::GetInstance());
    EXPECT_EQ(nullptr, App().L());
}

TEST_F(AgentApp, AnUnhandledExceptionIsTwoTraceRecords)
{
    Dom().Set("app.trace", "Appl");
    ReportThrown(App(), std::runtime_error("x"));
    EXPECT_EQ((Texts{"OnUnhandledException: OnUnhandledException()",
                     "OnUnhandledException: OnUnhandledException() - caught unhandled std::exception of type "
                     "\"St13runtime_error\", what() = \"x\", terminating app."}),
              Traced());
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(AgentApp, AnUnknownExceptionIsReportedAsText)
{
    Dom().Set("app.trace", "*");
    struct CUnrelated
    {
    };
    ReportThrown(App(), CUnrelated());
    EXPECT_EQ("OnUnhandledException: OnUnhandledException() - caught unhandled <unknown exception>, terminating app.",
              Traced().at(1));
}

TEST_F(AgentApp, WithoutTracingAnUnhandledExceptionIsSilent)
{
    Dom().Set("app.trace", "Cmd");
    ReportThrown(App(), 42);
    EXPECT_FALSE(VelTest::Exists(m_folder / "work"));
    EXPECT_TRUE(m_log.Records().empty());
}

// The library takes a configuration only while it is shut down.
bool DatabaseIsShutDown()
{
    return sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1) == SQLITE_OK;
}

TEST(AgentAppEnd, TerminationCleanupIsDoneOnce)
{
    // In a process of its own, where nothing has been cleaned up yet.
    EXPECT_EXIT(
        {
            VelCore::CSqliteDatabase::InitializeSQLite(nullptr);
            CAgentApp::TerminationCleanup();
            const bool firstCleans = DatabaseIsShutDown();
            sqlite3_initialize();
            CAgentApp::TerminationCleanup();
            _exit(firstCleans && !DatabaseIsShutDown() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(AgentAppEnd, TheDestructorCleansUp)
{
    EXPECT_EXIT(
        {
            CInstalledApp installed;
            VelCore::CSqliteDatabase::InitializeSQLite(nullptr);
            installed.app.reset();
            _exit(DatabaseIsShutDown() && CDom::Root() == nullptr ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// The version gate of extensions.
class ExtensionGate : public AgentApp
{
protected:
    // The answer, and the warning if there is one.
    std::string Judge(const std::string& name)
    {
        const std::size_t before = m_log.Records().size();
        const bool isOk = App().ExtensionVersionIsOK(VelCore::FromUtf8(m_folder / name));
        const auto records = m_log.Records();
        EXPECT_EQ(isOk ? 0u : 1u, records.size() - before);
        if (isOk)
            return "ok";
        EXPECT_EQ(static_cast<wxLogLevel>(wxLOG_Warning), records.back().level);
        return records.back().text;
    }
};

TEST_F(ExtensionGate, OnlyOurVersionPasses)
{
    const std::string extension = m_folder / "s.kxe";
    m_folder.Write("s.kxe.version", "version: 11.0.0-2580\n");
    EXPECT_EQ("ok", Judge("s.kxe"));
    m_folder.Write("s.kxe.version", "# text\r\nversion:11.0.0-1\r\n");
    EXPECT_EQ("ok", Judge("s.kxe"));
    for (const char* version : {"11.0.1", "11.1.0", "12.0.0", "10.0.0"}) {
        m_folder.Write("s.kxe.version", std::string("version: ") + version + "-1\nversion: 11.0.0-1\n");
        EXPECT_EQ("Ignoring extension '" + extension + "' since its version (" + version +
                      ") doesn't match ours (11.0.0)",
                  Judge("s.kxe"));
    }
}

TEST_F(ExtensionGate, WithoutAVersionFileNothingPasses)
{
    m_folder.Write("s.version", "version: 11.0.0-1\n");
    const std::string expected = "Extension file '" + (m_folder / "s.kxe") +
                                 "' does not have a corresponding '.version' file. It will not be enabled.";
    EXPECT_EQ(expected, Judge("s.kxe"));
    m_folder.MakeFolder("s.kxe.version");
    EXPECT_EQ(expected, Judge("s.kxe"));
}

TEST_F(ExtensionGate, WithoutAVersionLineNothingPasses)
{
    for (const char* content : {"", "Version: 11.0.0-1\n", " version: 11.0.0-1\n"}) {
        m_folder.Write("s.kxe.version", content);
        EXPECT_EQ("File '" + (m_folder / "s.kxe.version") + "' does not contain a 'version:' line. Extension '" +
                      (m_folder / "s.kxe") + "' will not be enabled.",
                  Judge("s.kxe"));
    }
}

TEST_F(ExtensionGate, AMalformedVersionLineDoesNotPass)
{
    for (const char* content : {"version: 11.0.0\n", "version: 11.0.0 - 2580\n", "version:\n"}) {
        m_folder.Write("s.kxe.version", content);
        EXPECT_EQ("File '" + (m_folder / "s.kxe.version") +
                      "' did not contain a properly formatted 'version:' line. Extension '" + (m_folder / "s.kxe") +
                      "' will not be enabled.",
                  Judge("s.kxe"));
    }
}

// What the walk through a package or a removal marker calls for each entry.
class PackageCallbacks : public AgentApp
{
protected:
    // The plain functions, as the walk calls them.
    static bool Install(void* context, const wxZipEntry* entry, const std::string& target)
    {
        const wxString path = VelCore::FromUtf8(target);
        return CAgentApp::InstallPluginZipCB(context, entry, &path);
    }
    static bool Uninstall(void* context, const wxZipEntry* entry, const std::string& target)
    {
        const wxString path = VelCore::FromUtf8(target);
        return CAgentApp::UninstallPluginZipCB(context, entry, &path);
    }

    // An entry of 1234 bytes.
    static wxZipEntry Entry(const wxString& name) { return {name, wxDateTime::Now(), 1234}; }
};

TEST_F(PackageCallbacks, WithoutAContextNothingIsWantedAndNothingDone)
{
    const std::string file = m_folder.Write("bin/file", "content");
    const wxZipEntry entry = Entry(L"file");
    EXPECT_FALSE(Install(nullptr, &entry, file));
    EXPECT_FALSE(Uninstall(nullptr, &entry, file));
    EXPECT_FALSE(Uninstall(nullptr, nullptr, file));
    EXPECT_TRUE(VelTest::Exists(file));
}

TEST_F(PackageCallbacks, WithoutAnEntryTheyAgreeAndDoNothing)
{
    Dom().Set("app.trace", "Appl");
    const std::string file = m_folder.Write("bin/file", "content");
    EXPECT_TRUE(Install(&App(), nullptr, file));
    EXPECT_TRUE(Uninstall(&App(), nullptr, file));
    EXPECT_TRUE(VelTest::Exists(file));
    EXPECT_EQ(Texts(), Traced());
}

TEST_F(PackageCallbacks, InstallationWantsEveryEntryAndTouchesNoFile)
{
    Dom().Set("app.trace", "Appl");
    const std::string file = m_folder.Write("bin/lib/100%s", "content");
    const wxZipEntry entry = Entry(L"lib/100%s");
    EXPECT_TRUE(Install(&App(), &entry, file));
    EXPECT_EQ("content", VelTest::ReadFile(file));
    EXPECT_EQ(Texts{"InstallPluginZipCB:   extracting: lib/100%s (1234 bytes)"}, Traced());
}

TEST_F(PackageCallbacks, RemovalDeletesTheFileAndWantsNoEntry)
{
    Dom().Set("app.trace", "Appl");
    const std::string file = m_folder.Write("bin/lib/100%s", "content");
    const wxZipEntry entry = Entry(L"lib/100%s");
    EXPECT_FALSE(Uninstall(&App(), &entry, file));
    EXPECT_FALSE(VelTest::Exists(file));
    EXPECT_EQ(Texts{"UninstallPluginZipCB:   removing: lib/100%s (1234 bytes)"}, Traced());
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(PackageCallbacks, RemovalGoesOnWhereThereIsNoFile)
{
    m_folder.MakeFolder("bin/empty");
    const wxZipEntry folder = Entry(L"empty/");
    const wxZipEntry missing = Entry(L"missing");
    EXPECT_FALSE(Uninstall(&App(), &folder, m_folder / "bin/empty"));
    EXPECT_FALSE(Uninstall(&App(), &missing, m_folder / "bin/missing"));
    EXPECT_TRUE(VelTest::Exists(m_folder / "bin/empty"));
    EXPECT_EQ(2u, m_log.Texts(wxLOG_Error).size());
}

TEST_F(PackageCallbacks, WithoutTracingNothingIsLogged)
{
    const std::string file = m_folder.Write("bin/file", "content");
    const wxZipEntry entry = Entry(L"file");
    EXPECT_TRUE(Install(&App(), &entry, file));
    EXPECT_FALSE(Uninstall(&App(), &entry, file));
    EXPECT_TRUE(m_log.Records().empty());
    EXPECT_EQ("", LogText());
}

TEST_F(PackageCallbacks, TheVersionFieldOfTheBaseNameDecides)
{
    EXPECT_TRUE(App().CheckKXPVersion(wxFileName(L"/10.5.0-1.x/Feature-Sample-11.0.0-1234.x86_64.kxp")));
    EXPECT_FALSE(App().CheckKXPVersion(wxFileName(L"/bin/Feature-Sample-10.5.0-1234.x86_64.kxp")));
    EXPECT_FALSE(App().CheckKXPVersion(wxFileName(L"/bin/Feature-Sample-11.0.0-1234.kxp")));
    EXPECT_TRUE(App().CheckKXPVersion(wxFileName(L"/bin/Sample-1.kxp")));
}

TEST_F(PackageCallbacks, NoDomainVariableMovesTheGate)
{
    Dom().Set("app.version", "10.5.0.1");
    EXPECT_TRUE(App().CheckKXPVersion(wxFileName(L"/bin/Feature-Sample-11.0.0-1234.x86_64.kxp")));
    EXPECT_FALSE(App().CheckKXPVersion(wxFileName(L"/bin/Feature-Sample-10.5.0-1234.x86_64.kxp")));
}

// The phases of an application, with a real interpreter. They change signals for the whole process.
class AgentAppRun : public AgentApp
{
protected:
    void SetUp() override
    {
        AgentApp::SetUp();
        for (std::size_t i = 0; i < std::size(kSignals); ++i)
            sigaction(kSignals[i], nullptr, &m_dispositions[i]);
        pthread_sigmask(SIG_SETMASK, nullptr, &m_mask);
        Arguments({L"prog"});
    }

    void TearDown() override
    {
        for (std::size_t i = 0; i < std::size(kSignals); ++i)
            sigaction(kSignals[i], &m_dispositions[i], nullptr);
        pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    }

    void Module(const std::string& text) const { m_folder.Write("bin/probe.lua", text); }

    void Arguments(std::vector<std::wstring> words)
    {
        m_words = std::move(words);
        m_pointers.clear();
        for (std::wstring& word : m_words)
            m_pointers.push_back(word.data());
        m_pointers.push_back(nullptr);
        App().argc = static_cast<int>(m_words.size());
        App().argv.Init(App().argc, m_pointers.data());
    }

    // The text that a Lua expression has in the application's interpreter.
    std::string Value(const std::string& expression)
    {
        lua_State* L = App().L();
        luaL_dostring(L, ("return " + expression).c_str());
        const std::string value = luaL_tolstring(L, -1, nullptr);
        lua_settop(L, 0);
        return value;
    }

private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGHUP, SIGALRM, SIGPIPE};

    struct sigaction m_dispositions[std::size(kSignals)]{};
    sigset_t m_mask{};
    std::vector<std::wstring> m_words;
    std::vector<wchar_t*> m_pointers;
};

TEST_F(AgentAppRun, ThePhasesCallTheFunctionsOfTheModule)
{
    Module("local m, calls = {}, {}\n"
           "function m.init(...) calls[#calls + 1] = 'init' .. select('#', ...) end\n"
           "function m.main(...) calls[#calls + 1] = 'main' .. select('#', ...) return 0 end\n"
           "function m.shutdown(...) print(table.concat(calls, ' ')) return 7 end\n"
           "return m");
    const CDescriptorCapture out(STDOUT_FILENO);
    const CDescriptorCapture error(STDERR_FILENO);
    EXPECT_EQ(0, App().RunAppInit());
    EXPECT_EQ(0, App().RunAppMain());
    EXPECT_EQ(7, App().RunAppShutdown());
    EXPECT_EQ("init0 main0\n", out.Text());
    EXPECT_EQ("\n", error.Text()); // a status without a failure shows the failure that there was not
}

TEST_F(AgentAppRun, TheFirstResultIsTheStatus)
{
    Module("return {}");
    ASSERT_EQ(0, App().RunAppInit());
    const CDescriptorCapture error(STDERR_FILENO);
    const std::pair<const wchar_t*, int> cases[] = {
        {L"", 0},
        {L"return", 0},
        {L"return nil", 0},
        {L"return true", 0},
        {L"return {}", 0},
        {L"return 'text'", 0},
        {L"return 3", 3},
        {L"return -1", -1},
        {L"return '5'", 5},
        {L"return 3.7", 3},
        {L"return 2^32", 0},
        {L"return 2^32 + 3", 3},
        {L"return 0, 9", 0},
        {L"return 9, 0", 9},
    };
    for (const auto& [code, status] : cases) {
        EXPECT_EQ(status, App().RunCodeSnippet(code)) << code;
        EXPECT_EQ(0, lua_gettop(App().L())) << code;
    }
}

TEST_F(AgentAppRun, AFailureIsWrittenToStandardErrorAndRecorded)
{
    Module("return {main = function() error('broken') end}");
    ASSERT_EQ(0, App().RunAppInit());
    const CDescriptorCapture error(STDERR_FILENO);
    EXPECT_EQ(2, App().RunAppMain());
    const std::string shown = error.Text();
    EXPECT_NE(std::string::npos, shown.find("probe.lua:1: broken\nstack traceback:\n")) << shown;
    EXPECT_EQ('\n', shown.back());
    EXPECT_EQ(Texts{shown.substr(0, shown.size() - 1)}, m_log.Texts(wxLOG_Error));
}

TEST_F(AgentAppRun, AModuleThatIsMissingFails)
{
    const CDescriptorCapture error(STDERR_FILENO);
    EXPECT_EQ(2, App().RunAppInit());
    EXPECT_NE(std::string::npos, error.Text().find("module 'probe' not found")) << error.Text();
}

TEST_F(AgentAppRun, AnErrorOfTheSetUpIsReported)
{
    // The static entry point is called by Lua, so a wrong order of preparation cannot be made from outside; a state
    // whose package table is gone can.
    Module("return {}");
    ASSERT_EQ(0, App().RunAppInit());
    luaL_dostring(App().L(), "package = nil");
    lua_pushlightuserdata(App().L(), &App());
    lua_pushcclosure(App().L(), static_cast<lua_CFunction>(&CAgentApp::SetupLua), 1);
    EXPECT_EQ(LUA_ERRRUN, lua_pcall(App().L(), 0, 0, 0));
    EXPECT_TRUE(lua_isstring(App().L(), -1));
}

TEST_F(AgentAppRun, TheDomainIsOneObjectUnderTwoNames)
{
    Module("return {}");
    Dom().Set("x", 5);
    ASSERT_EQ(0, App().RunAppInit());
    EXPECT_EQ("true", Value("rawequal(dom0, dom)"));
    EXPECT_EQ("5", Value("dom:Get('x')"));
    EXPECT_EQ("SLB.Dom", Value("getmetatable(dom).__class"));
    Value("(function() dom0 = nil dom = nil collectgarbage() end)()");
    EXPECT_EQ("5", Dom().Get("x"));
}

TEST_F(AgentAppRun, TheArgumentsAreTheTableArg)
{
    Module("return {}");
    Arguments({L"prog", L"-x", L"--", L"a", L"caf\x00E9", L"--"});
    ASSERT_EQ(0, App().RunAppInit());
    EXPECT_EQ("prog -x probe a caf\xC3\xA9 --", Value("table.concat(arg, ' ', -2)"));
    EXPECT_EQ("3", Value("#arg"));
    EXPECT_EQ("nil", Value("arg[-3]"));
}

TEST_F(AgentAppRun, WithoutScriptParametersArgHasNoPositiveKeys)
{
    Module("return {}");
    Arguments({L"prog", L"-x"});
    ASSERT_EQ(0, App().RunAppInit());
    EXPECT_EQ("prog -x probe", Value("table.concat(arg, ' ', -2, 0)"));
    EXPECT_EQ("0", Value("#arg"));
}

TEST_F(AgentAppRun, TheSearchPathsAreThoseOfTheDomain)
{
    Module("return {}");
    Dom().Set("app.lua.path", "/x/?.lua");
    Dom().Set("app.lua.cpath", "/x/?.so");
    ASSERT_EQ(0, App().RunAppInit());
    const std::string bin = m_folder / "bin";
    EXPECT_EQ(0u, Value("package.path").find("/x/?.lua;" + bin + "/?.lua;" + bin + "/?/init.lua;"));
    EXPECT_EQ(0u, Value("package.cpath").find("/x/?.so;" + bin + "/lib/?.so;"));
}

TEST_F(AgentAppRun, PhasesAreTraced)
{
    Dom().Set("app.trace", "Appl");
    Module("return {main = function() return 3 end}");
    const CDescriptorCapture error(STDERR_FILENO);
    ASSERT_EQ(0, App().RunAppInit());
    EXPECT_EQ(3, App().RunAppMain());
    const Texts traced = Traced();
    ASSERT_LE(3u, traced.size());
    EXPECT_EQ((Texts{"RunAppMethod: Running app's Lua method 'main'", "RunChunk: Running chunk 'probe'",
                     "RunChunk: Chunk produced a return value of 3"}),
              Texts(traced.end() - 3, traced.end()));
}

} // namespace
