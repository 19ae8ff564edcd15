#include "shell/InstallPaths.h"

#include <gtest/gtest.h>

#include <wx/filename.h>

namespace {

struct Installation
{
    const wchar_t* executable;
    const wchar_t* bin;
    const wchar_t* lib;
    const wchar_t* vendor;
};

TEST(InstallPaths, FollowFromWhereTheExecutableIs)
{
    const Installation cases[] = {
        {L"/opt/Quenvar/agent/bin/kx_agent", L"/opt/Quenvar/agent/bin", L"/opt/Quenvar/agent/bin/lib",
         L"/opt/Quenvar/agent"},
        {L"/usr/local/bin/kx_agent", L"/usr/local/bin", L"/usr/local/bin/lib", L"/usr/local/bin"},
        {L"/agent/kx_agent", L"/agent", L"/agent/lib", L"/agent"},
        {L"/kx_agent", L"/", L"/lib", L"/"},
    };
    for (const Installation& installation : cases) {
        const InstallPaths paths = FindInstallPaths(wxFileName(installation.executable));
        EXPECT_EQ(installation.bin, paths.bin) << installation.executable;
        EXPECT_EQ(installation.lib, paths.lib) << installation.executable;
        EXPECT_EQ(installation.vendor, paths.vendor) << installation.executable;
    }
}

TEST(InstallPaths, TheVendorsWordCountsInTheParentOnly)
{
    const auto vendor = [](const wchar_t* executable) { return FindInstallPaths(wxFileName(executable)).vendor; };
    EXPECT_EQ(L"/opt/Quenvar", vendor(L"/opt/Quenvar/kx_agent")); // found in the folder itself, which is the fallback
    EXPECT_EQ(L"/opt/Quenvar", vendor(L"/opt/Quenvar/bin/kx_agent"));
    EXPECT_EQ(L"/opt/bin", vendor(L"/opt/bin/Quenvar"));
    EXPECT_EQ(L"/a/Quenvar", vendor(L"/a/Quenvar/kx_agent"));
    EXPECT_EQ(L"/Quenvar", vendor(L"/Quenvar/kx_agent"));
    EXPECT_EQ(L"/Quenvar", vendor(L"/Quenvar/bin/kx_agent"));
}

TEST(InstallPaths, TheVendorsWordMayBePartOfANameButNotInAnotherCase)
{
    const auto vendor = [](const wchar_t* executable) { return FindInstallPaths(wxFileName(executable)).vendor; };
    EXPECT_EQ(L"/opt/TheQuenvarAgent", vendor(L"/opt/TheQuenvarAgent/bin/kx_agent"));
    EXPECT_EQ(L"/opt/Quenvar/a/b", vendor(L"/opt/Quenvar/a/b/bin/kx_agent"));
    EXPECT_EQ(L"/opt/quenvar/bin", vendor(L"/opt/quenvar/bin/kx_agent"));
}

} // namespace
