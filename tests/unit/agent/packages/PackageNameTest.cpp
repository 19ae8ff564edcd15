#include "packages/PackageName.h"

#include <string>

#include <gtest/gtest.h>

#include <wx/filename.h>

#include <VelCore/Utf8.h>

namespace {

struct Named
{
    const char* baseName;
    const char* pluginName;
};

TEST(PackageName, ThePluginNameStandsBetweenTheFirstTwoDashes)
{
    const Named cases[] = {
        {"Feature-Sample-11.0.0-1234.x86_64", "Sample"},
        {"Feature-Sample-more-11.0.0-1234.x86_64", "Sample"},
        {"a-b-", "b"},
        {"a--b", ""},
        {"-b-c", "b"},
        {"--", ""},
        {"a-b c-d", "b c"},
        {"Feature-Muster gr\xC3\xBC\xC3\x9F-11.0.0-1.x", "Muster gr\xC3\xBC\xC3\x9F"},
        {"a-\xFF-c", "\xFF"},
        {"a-%s|'\"\n-c", "%s|'\"\n"},
    };
    for (const Named& named : cases)
        EXPECT_EQ(named.pluginName, VelCore::ToUtf8(PluginNameIn(VelCore::FromUtf8(named.baseName)))) << named.baseName;
}

TEST(PackageName, WithOneDashThePluginNameIsAllBehindIt)
{
    const Named cases[] = {{"Sample-1", "1"}, {"a-b.c", "b.c"}, {"-b", "b"}, {"a-", ""}, {"-", ""}};
    for (const Named& named : cases)
        EXPECT_EQ(named.pluginName, PluginNameIn(named.baseName)) << named.baseName;
}

TEST(PackageName, WithoutADashThePluginNameIsTheBaseName)
{
    for (const char* baseName : {"Sample", "a.b.c", "", "Sample_1", "Sample\xE2\x80\x93 1"})
        EXPECT_EQ(VelCore::FromUtf8(baseName), PluginNameIn(VelCore::FromUtf8(baseName))) << baseName;
}

TEST(PackageName, OnlyTheFinalExtensionIsNotPartOfTheBaseName)
{
    EXPECT_EQ(L"Sample", getPluginName(wxFileName(L"/opt/agent/Feature-Sample-11.0.0-1234.x86_64.kxp")));
    EXPECT_EQ(L"Sample", getPluginName(wxFileName(L"/opt/agent/Sample.kxu")));
    EXPECT_EQ(L"1.kxp", getPluginName(wxFileName(L"/opt/agent/Sample-1.kxp.done")));
    EXPECT_EQ(L"1", getPluginName(wxFileName(L"/opt/with-dashes-in/Sample-1.kxp")));
}

// The version field; "none" when there is none.
std::string Field(const wxString& baseName)
{
    const auto field = VersionFieldIn(baseName);
    return field ? VelCore::ToUtf8(*field) : "none";
}

struct Versioned
{
    const wchar_t* baseName;
    const char* field;
    bool isAllowed;
};

TEST(PackageName, TheVersionFieldStandsBeforeBuildNumberAndSuffix)
{
    const Versioned cases[] = {
        {L"Feature-Sample-11.0.0-1234.x86_64", "11.0.0", true},
        {L"Feature-Sample-more-and-more-11.0.0-1234.x86_64", "11.0.0", true},
        {L"Sample-11.0.0-1.x", "11.0.0", true},
        {L"-11.0.0-1.x", "11.0.0", true},
        {L"a-11.0.0-.", "11.0.0", true},
        {L"a-11.0.0-b-c.x", "b", false},
        {L"Feature-Sample-10.5.0-1234.x86_64", "10.5.0", false},
        {L"Feature-Sample-11.0.1-1234.x86_64", "11.0.1", false},
        {L"Feature-Sample-11.1.0-1234.x86_64", "11.1.0", false},
        {L"Feature-Sample-12.0.0-1234.x86_64", "12.0.0", false},
        {L"Feature-Sample-11.0.0.2580-1234.x86_64", "11.0.0.2580", false},
        {L"a-11.0.0-1.2.x", "11.0.0", true},
    };
    for (const Versioned& versioned : cases) {
        EXPECT_EQ(versioned.field, Field(versioned.baseName)) << versioned.baseName;
        EXPECT_EQ(versioned.isAllowed, VersionAllows(versioned.baseName)) << versioned.baseName;
    }
}

TEST(PackageName, TheVersionIsComparedToTheLetter)
{
    for (const wchar_t* version : {L"11.0.00", L"011.0.0", L"11.0.0a", L"a11.0.0", L" 11.0.0", L"11.0.0 ", L"11.0",
                                   L"11", L"+11.0.0", L"11,0,0", L"%d.%d.%d", L"1l.0.0", L"\uFF11\uFF11.0.0"})
        EXPECT_FALSE(VersionAllows(wxString(L"Feature-Sample-") + version + L"-1234.x86_64")) << version;
}

TEST(PackageName, WithoutASuffixTheWrongFieldIsCompared)
{
    EXPECT_EQ("Sample", Field(L"Feature-Sample-11.0.0-1234"));
    EXPECT_FALSE(VersionAllows(L"Feature-Sample-11.0.0-1234"));
    // One "-" less, and there is no field at all.
    EXPECT_EQ("none", Field(L"Sample-11.0.0-1234"));
}

TEST(PackageName, WithoutAVersionFieldThereIsNoCheck)
{
    for (const wchar_t* baseName : {L"", L"Sample", L"Sample-1", L"Feature-Sample-11_0_0-1234", // no "."
                                    L"Sample.x", L".", L"11.0.0",                               // no "-"
                                    L"Sample-1.x", L"Sample-9.9.9.x", L"-.",                    // one "-"
                                    L"Feature--1.x", L"--.", L"a-b--1.x86_64"}) {               // an empty field
        EXPECT_EQ("none", Field(baseName)) << baseName;
        EXPECT_TRUE(VersionAllows(baseName)) << baseName;
    }
}

} // namespace
