#include <VelCore/FileNames.h>

#include <clocale>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <wx/dir.h>
#include <wx/filename.h>
#include <wx/strconv.h>

#include <VelCore/Utf8.h>

#include "support/TempFolder.h"

using VelCore::FromUtf8;

namespace {

// The conversion is one for the process; the framework's own is back after each test.
class FileNames : public testing::Test
{
protected:
    void SetUp() override { VelCore::UseUtf8FileNames(); }
    void TearDown() override { wxConvFileName = m_before; }

    VelTest::CTempFolder m_folder;

private:
    wxMBConv* m_before = wxConvFileName;
};

TEST_F(FileNames, AreTheBytesThatTheTextCameFrom)
{
    for (const std::string name : {"plain", "caf\xC3\xA9", "caf\xE9", "\xFF\xC3", "\xE2\x82\xAC \xF0\x9F\x98\x80"}) {
        m_folder.Write(name, "x");
        const wxString path = FromUtf8(m_folder / name);
        EXPECT_EQ(m_folder / name, std::string(path.fn_str().data()));
        EXPECT_TRUE(wxFileExists(path)) << name;
    }
}

TEST_F(FileNames, OfAListingNameTheFilesThatAreThere)
{
    for (const char* name : {"caf\xC3\xA9", "caf\xE9"})
        m_folder.Write(name, "x");
    wxArrayString files;
    EXPECT_EQ(2u, wxDir::GetAllFiles(FromUtf8(m_folder.Path()), &files));
    for (const wxString& file : files) {
        EXPECT_TRUE(wxFileExists(file));
        EXPECT_EQ("x", VelTest::ReadFile(VelCore::ToUtf8(file)));
    }
}

TEST_F(FileNames, DoNotDependOnTheLocale)
{
    const std::string before = std::setlocale(LC_CTYPE, nullptr);
    std::setlocale(LC_CTYPE, "C");
    m_folder.Write("caf\xC3\xA9", "x");
    EXPECT_TRUE(wxFileExists(FromUtf8(m_folder / "caf\xC3\xA9")));
    std::setlocale(LC_CTYPE, before.c_str());
}

TEST_F(FileNames, ConversionTellsTheLengthFirst)
{
    const char* const bytes = "a\xC3\xA9\xFF";
    EXPECT_EQ(3u, wxConvFileName->ToWChar(nullptr, 0, bytes, 4));
    EXPECT_EQ(4u, wxConvFileName->ToWChar(nullptr, 0, bytes)); // with the NUL at the end
    wchar_t wide[4] = {L'x', L'x', L'x', L'x'};
    EXPECT_EQ(wxCONV_FAILED, wxConvFileName->ToWChar(wide, 3, bytes));
    EXPECT_EQ(4u, wxConvFileName->ToWChar(wide, 4, bytes));
    EXPECT_STREQ(L"a\x00E9\xDCFF", wide);

    EXPECT_EQ(4u, wxConvFileName->FromWChar(nullptr, 0, wide, 3));
    EXPECT_EQ(5u, wxConvFileName->FromWChar(nullptr, 0, wide));
    char narrow[5] = "xxxx";
    EXPECT_EQ(wxCONV_FAILED, wxConvFileName->FromWChar(narrow, 4, wide));
    EXPECT_EQ(5u, wxConvFileName->FromWChar(narrow, 5, wide));
    EXPECT_STREQ(bytes, narrow);
}

TEST_F(FileNames, ConversionOfNothingIsNothing)
{
    EXPECT_EQ(0u, wxConvFileName->ToWChar(nullptr, 0, "", 0));
    EXPECT_EQ(1u, wxConvFileName->ToWChar(nullptr, 0, ""));
    EXPECT_EQ("", std::string(wxString().fn_str().data()));
}

TEST_F(FileNames, ACopyOfTheConversionDoesTheSame)
{
    const std::unique_ptr<wxMBConv> copy(wxConvFileName->Clone());
    EXPECT_EQ(L"caf\xDCE9", wxString(copy->cMB2WC("caf\xE9")));
}

} // namespace
