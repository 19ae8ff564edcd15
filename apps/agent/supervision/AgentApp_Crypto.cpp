// CAgentApp: start and end of the cryptographic library, and FIPS mode.
//
// Tested by: unit/agent/supervision/FipsSettingTest.cpp, blackbox/test_fips.py.

#include "AgentApp.h"

#include <cstdlib>

#include <wx/filename.h>
#include <wx/log.h>

#include <VelCore/Dom.h>
#include <VelCore/OpenSslThreads.h>
#include <VelCore/SqliteDatabase.h>
#include <VelCore/Trace.h>
#include <VelCore/Utf8.h>

#include "DomainKeys.h"
#include "supervision/FipsModule.h"
#include "supervision/FipsSetting.h"
#include "supervision/OpenSslCompat.h"

namespace {

// Rounds of seeding before the start goes on all the same.
const int kSeedRounds = 100;

void TraceFips(const wxString& message, int line)
{
    if (VelCore::LogTraceIsEnabled(CAgentApp::s_Trace))
        VelCore::LogTrace(CAgentApp::s_Trace, __FILE__, line, "EnterFipsMode", message);
}

} // namespace

void CAgentApp::StartupInit()
{
    static bool b_InitDone = false;
    if (b_InitDone)
        return;
    b_InitDone = true;

    KeepOpenSslOutOfExit();
    OPENSSL_add_all_algorithms_noconf();
    SSL_library_init();
    SSL_load_error_strings();
    VelCore::OpenSSLThreadSetup();
    for (int round = 0; round < kSeedRounds; ++round) {
        RAND_poll();
        if (RAND_status() != 0)
            break;
    }
}

void CAgentApp::TerminationCleanup()
{
    static bool b_TermDone = false;
    if (b_TermDone)
        return;
    b_TermDone = true;

    VelCore::OpenSSLThreadShutdown();
    RemoveThreadErrorState();
    CONF_modules_unload(1);
    ERR_free_strings();
    EVP_cleanup();
    FreeCompressionMethods();
    CRYPTO_cleanup_all_ex_data();
    VelCore::CSqliteDatabase::ShutdownSQLite();
}

// Returns whether the run goes on; otherwise sets the exit code.
bool CAgentApp::EnterFipsMode(int& exitCode)
{
    if (!WantsFipsMode(m_dom->GetWxString(DomainKeys::kFipsMode))) {
        TraceFips(L"FIPS mode is OFF", __LINE__);
        return true;
    }

    wxFileName engines = wxFileName::DirName(m_dom->GetWxString(DomainKeys::kPathLib));
    engines.AppendDir(L"engines");
    const wxString folder = engines.GetPath(wxPATH_GET_VOLUME, wxPATH_NATIVE);
    const bool setEnginesVariable = setenv("OPENSSL_ENGINES", VelCore::ToUtf8(folder).c_str(), 1) == 0;
    wxASSERT(setEnginesVariable);
    wxUnusedVar(setEnginesVariable);
    wxLogVerbose(L"OPENSSL_ENGINES = %s", folder);

    const FipsOutcome outcome = SwitchFipsModeOn(VelCore::ToUtf8(folder));
    if (outcome == FipsOutcome::On) {
        TraceFips(L"FIPS mode is ON", __LINE__);
        return true;
    }

    wxLogWarning(L"Tried to enter FIPS mode but failed: %s",
                 VelCore::FromUtf8(ERR_error_string(ERR_get_error(), nullptr)));
    ERR_clear_error();
    if (outcome == FipsOutcome::NotSupported)
        return true;

    wxLogError(L"Failed to enter FIPS mode. Exiting.");
    exitCode = 0; // a start that fails here ends with 0 on purpose
    return false;
}
