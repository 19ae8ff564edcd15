// The entry point of every test program: the framework, then the tests.

#include <cstdlib>

#include <gtest/gtest.h>

#include <wx/debug.h>
#include <wx/init.h>
#include <wx/log.h>

namespace {

// The framework itself would print a failed assertion and go on.
void FailOnAssert(const wxString& file, int line, const wxString&, const wxString& condition, const wxString& message)
{
    ADD_FAILURE_AT(file.utf8_str(), line) << condition.utf8_str() << " " << message.utf8_str();
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    testing::GTEST_FLAG(death_test_style) = "threadsafe";

    const wxInitializer framework(argc, argv);
    if (!framework.IsOk())
        return EXIT_FAILURE;
    wxSetAssertHandler(FailOnAssert);
    wxLog::SetTimestamp(L"%Y-%m-%d %H:%M:%S");
    return RUN_ALL_TESTS();
}
