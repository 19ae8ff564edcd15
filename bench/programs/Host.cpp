// The least that a host of one Lua chunk costs which is built of the same parts as the agent: it loads the same
// libraries, starts the framework with its locale and command line, the cryptographic library and Lua, and runs the
// chunk. It has no thread, no domain, no archive and no file of its own.
//
// Usage: Host CHUNK

#include <clocale>
#include <cstdio>
#include <ctime>

#include <wx/app.h>
#include <wx/cmdline.h>
#include <wx/init.h>
#include <wx/intl.h>

#include <lua.hpp>

#include <openssl/rand.h>
#include <openssl/ssl.h>

namespace {

class CHost : public wxAppConsole
{
public:
    CHost();
    void OnInitCmdLine(wxCmdLineParser& parser) override;
    int OnRun() override;

private:
    static void StartCrypto();

    wxLocale m_locale;
};

CHost::CHost()
{
    tzset();
    m_locale.Init(wxLANGUAGE_DEFAULT, wxLOCALE_LOAD_DEFAULT);
    std::setlocale(LC_NUMERIC, "C");
    StartCrypto();
}

void CHost::StartCrypto()
{
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    OPENSSL_add_all_algorithms_noconf();
    SSL_library_init();
    SSL_load_error_strings();
    RAND_poll();
    RAND_status();
}

void CHost::OnInitCmdLine(wxCmdLineParser& parser)
{
    wxAppConsole::OnInitCmdLine(parser);
    parser.AddParam(L"chunk", wxCMD_LINE_VAL_STRING, 0);
}

int CHost::OnRun()
{
    lua_State* state = luaL_newstate();
    if (!state)
        return 1;
    luaL_openlibs(state);
    const bool isDone = luaL_dofile(state, argv[1].utf8_str()) == LUA_OK;
    if (!isDone)
        std::fprintf(stderr, "%s\n", lua_tostring(state, -1));
    lua_close(state);
    return isDone ? 0 : 1;
}

wxAppConsole* CreateHost()
{
    wxAppConsoleBase::CheckBuildOptions(WX_BUILD_OPTIONS_SIGNATURE, "your program");
    return new CHost;
}

const wxAppInitializer g_registerFactory(CreateHost);

} // namespace

int main(int argc, char** argv)
{
    return wxEntry(argc, argv);
}
