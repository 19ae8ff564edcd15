#include "packages/ExtensionGate.h"

#include <string>

#include <gtest/gtest.h>

#include <wx/mstream.h>

namespace {

std::optional<ExtensionRefusal> Judge(const std::string& content, const wxString& extensionFile = L"/ext/a.kxe")
{
    wxMemoryInputStream in(content.data(), content.size());
    return JudgeExtension(extensionFile, &in);
}

TEST(ExtensionGate, TheVersionFileHasTheWholeName)
{
    EXPECT_EQ(L"/opt/agent/ext/Sample.kxe.version", VersionFileOf(L"/opt/agent/ext/Sample.kxe"));
}

TEST(ExtensionGate, ThisAgentsVersionIsEnabledWhateverTheBuild)
{
    for (const char* content : {"version: 11.0.0-2580\n", "version:11.0.0-1", "one\nversion: 011.00.0--5\n"})
        EXPECT_FALSE(Judge(content)) << content;
}

TEST(ExtensionGate, WithoutAVersionFileItIsLeftOut)
{
    const auto refusal = JudgeExtension(L"/ext/a.kxe", nullptr);
    ASSERT_TRUE(refusal);
    EXPECT_EQ(L"it has no '.version' file", refusal->reason);
    EXPECT_EQ(L"Extension file '/ext/a.kxe' does not have a corresponding '.version' file. It will not be enabled.",
              refusal->warning);
}

TEST(ExtensionGate, WithoutAVersionLineItIsLeftOut)
{
    for (const char* content : {"", "Version: 11.0.0-1\n", " version: 11.0.0-1\n"}) {
        const auto refusal = Judge(content);
        ASSERT_TRUE(refusal) << content;
        EXPECT_EQ(L"its '.version' file has no 'version:' line", refusal->reason);
        EXPECT_EQ(L"File '/ext/a.kxe.version' does not contain a 'version:' line. Extension '/ext/a.kxe' will not be "
                  L"enabled.",
                  refusal->warning);
    }
}

TEST(ExtensionGate, AMalformedVersionLineLeavesItOut)
{
    for (const char* content : {"version: 11.0.0\n", "version: 11.0.0 - 2580\n", "version: bad\nversion: 11.0.0-1\n"}) {
        const auto refusal = Judge(content);
        ASSERT_TRUE(refusal) << content;
        EXPECT_EQ(L"the 'version:' line of its '.version' file is not properly formatted", refusal->reason);
        EXPECT_EQ(L"File '/ext/a.kxe.version' did not contain a properly formatted 'version:' line. Extension "
                  L"'/ext/a.kxe' will not be enabled.",
                  refusal->warning);
    }
}

struct Other
{
    const char* content;
    const wchar_t* version;
};

TEST(ExtensionGate, AnotherVersionLeavesItOut)
{
    for (const Other& other : {Other{"version: 11.0.1-1", L"11.0.1"}, Other{"version: 11.1.0-1", L"11.1.0"},
                               Other{"version: 12.0.0-1", L"12.0.0"}, Other{"version: -11.0.0-1", L"-11.0.0"},
                               Other{"version: 10.0.0-1\nversion: 11.0.0-1\n", L"10.0.0"}}) {
        const auto refusal = Judge(other.content);
        ASSERT_TRUE(refusal) << other.content;
        EXPECT_EQ(wxString(L"its version (") + other.version + L") doesn't match ours (11.0.0)", refusal->reason);
        EXPECT_EQ(wxString(L"Ignoring extension '/ext/a.kxe' since its version (") + other.version +
                      L") doesn't match ours (11.0.0)",
                  refusal->warning);
    }
}

TEST(ExtensionGate, APathIsNoFormat)
{
    EXPECT_EQ(L"Ignoring extension '/100%s%n' since its version (1.0.0) doesn't match ours (11.0.0)",
              Judge("version: 1.0.0-1", L"/100%s%n")->warning);
}

} // namespace
