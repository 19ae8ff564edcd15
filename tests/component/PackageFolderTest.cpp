#include "packages/PackageFolder.h"

#include <cerrno>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <wx/filename.h>

#include <VelCore/FileNames.h>
#include <VelCore/Utf8.h>

#include "support/Capture.h"
#include "support/TempFolder.h"

using VelCore::FromUtf8;
using VelTest::Exists;
using VelTest::ReadFile;

using Names = std::vector<std::string>;

namespace {

class PackageFolder : public testing::Test
{
protected:
    void SetUp() override { VelCore::UseUtf8FileNames(); }

    wxFileName Folder() const { return wxFileName::DirName(FromUtf8(m_folder.Path())); }

    // The names that are listed; each has to be the path of a file in the folder.
    Names Listed(const wxString& pattern) const
    {
        Names names;
        for (const wxString& path : ListFiles(Folder(), pattern)) {
            const std::string text = VelCore::ToUtf8(path);
            EXPECT_TRUE(Exists(text)) << text;
            EXPECT_EQ(m_folder.Path() + "/", text.substr(0, m_folder.Path().size() + 1));
            names.push_back(text.substr(m_folder.Path().size() + 1));
        }
        return names;
    }

    void Write(const Names& names) const
    {
        for (const std::string& name : names)
            m_folder.Write(name, "content of " + name);
    }

    VelTest::CTempFolder m_folder;
    VelTest::CLogCapture m_log;
};

TEST_F(PackageFolder, FilesAreListedByTheirWholeNames)
{
    Write({"b.x.kxp", "a.x.kxp", "a-1.kxp", "a.kxp", "B.kxp", "\xC3\xA9.kxp", "[a].kxp", "a1.kxp", "a10.kxp"});
    EXPECT_EQ(
        (Names{"B.kxp", "[a].kxp", "a-1.kxp", "a.kxp", "a.x.kxp", "a1.kxp", "a10.kxp", "b.x.kxp", "\xC3\xA9.kxp"}),
        Listed(L"*.kxp"));
}

TEST_F(PackageFolder, ThePatternIsMatchedToTheLetter)
{
    Write({"a.kxp", "a.KXP", "a.kxp.done", "a.kxpx", "akxp", "a.kxu", "a.kxp ", "kxp"});
    EXPECT_EQ(Names{"a.kxp"}, Listed(L"*.kxp"));
}

TEST_F(PackageFolder, HiddenNamesAndWhatLiesBelowAreNotListed)
{
    Write({".a.kxp", ".kxp", "below/a.kxp", "below.kxp/a.kxp"});
    EXPECT_EQ(Names(), Listed(L"*.kxp"));
}

TEST_F(PackageFolder, EverythingThatIsNoFolderCountsAsAFile)
{
    Write({"file.kxp", "target"});
    m_folder.MakeFolder("folder.kxp");
    ASSERT_EQ(0, symlink("target", (m_folder / "link.kxp").c_str()));
    ASSERT_EQ(0, symlink("nowhere", (m_folder / "dangling.kxp").c_str()));
    ASSERT_EQ(0, symlink("folder.kxp", (m_folder / "folderlink.kxp").c_str()));
    ASSERT_EQ(0, mkfifo((m_folder / "fifo.kxp").c_str(), 0600));

    EXPECT_EQ((Names{"dangling.kxp", "fifo.kxp", "file.kxp", "link.kxp"}), Listed(L"*.kxp"));
}

TEST_F(PackageFolder, NamesKeepTheirBytes)
{
    const Names names = {"100%s.kxp", "a\nb.kxp", "it's \"q\".kxp", "x\\y.kxp", "~x.kxp", "\xC3\x28.kxp"};
    Write(names);
    EXPECT_EQ(names, Listed(L"*.kxp"));
}

TEST_F(PackageFolder, AMissingFolderHoldsNothing)
{
    EXPECT_TRUE(ListFiles(wxFileName::DirName(FromUtf8(m_folder / "missing")), L"*").empty());
    EXPECT_TRUE(ListFiles(wxFileName::DirName(wxString()), L"*").empty());
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(PackageFolder, CoreFilesAreRemovedWhateverTheirExtension)
{
    Write({"Agent-Core", "Agent-Core-11.0.0-1.x.kxp", "Agent-Core.kxu", "Agent-Core-1.kxp.done", "Agent-Core%s\n"});
    Write({"agent-core.kxp", "My-Agent-Core.kxp", "Agent-Cor", ".Agent-Core", "below/Agent-Core.kxp"});

    RemoveCoreFiles(Folder());

    EXPECT_EQ((Names{"Agent-Cor", "My-Agent-Core.kxp", "agent-core.kxp"}), Listed(L"*"));
    EXPECT_TRUE(Exists(m_folder / ".Agent-Core"));
    EXPECT_TRUE(Exists(m_folder / "below/Agent-Core.kxp"));
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(PackageFolder, OfCoreLinksTheLinkIsRemovedAndFoldersStay)
{
    Write({"target", "folder/file"});
    m_folder.MakeFolder("Agent-Core-folder");
    ASSERT_EQ(0, symlink("target", (m_folder / "Agent-Core-link").c_str()));
    ASSERT_EQ(0, symlink("nowhere", (m_folder / "Agent-Core-dangling").c_str()));
    ASSERT_EQ(0, symlink("folder", (m_folder / "Agent-Core-folderlink").c_str()));

    RemoveCoreFiles(Folder());

    EXPECT_EQ(Names{"target"}, Listed(L"*"));
    EXPECT_TRUE(Exists(m_folder / "Agent-Core-folder"));
    EXPECT_TRUE(Exists(m_folder / "Agent-Core-folderlink"));
    EXPECT_TRUE(Exists(m_folder / "folder/file"));
}

TEST_F(PackageFolder, AnInstalledPackageTakesTheDoneName)
{
    Write({"a.kxp", "a.kxp.done"});
    EXPECT_TRUE(RenameToDone(FromUtf8(m_folder / "a.kxp")));
    EXPECT_EQ(Names{"a.kxp.done"}, Listed(L"*"));
    EXPECT_EQ("content of a.kxp", ReadFile(m_folder / "a.kxp.done"));
}

TEST_F(PackageFolder, ALinkInTheDoneNamesPlaceIsReplaced)
{
    Write({"a.kxp", "target"});
    ASSERT_EQ(0, symlink("target", (m_folder / "a.kxp.done").c_str()));
    EXPECT_TRUE(RenameToDone(FromUtf8(m_folder / "a.kxp")));
    EXPECT_EQ("content of a.kxp", ReadFile(m_folder / "a.kxp.done"));
    EXPECT_EQ("content of target", ReadFile(m_folder / "target"));
}

TEST_F(PackageFolder, TwoNamesOfOneFileBecomeTheDoneOne)
{
    Write({"a.kxp"});
    ASSERT_EQ(0, link((m_folder / "a.kxp").c_str(), (m_folder / "a.kxp.done").c_str()));
    EXPECT_TRUE(RenameToDone(FromUtf8(m_folder / "a.kxp")));
    EXPECT_EQ(Names{"a.kxp.done"}, Listed(L"*"));
    EXPECT_EQ("content of a.kxp", ReadFile(m_folder / "a.kxp.done"));
}

TEST_F(PackageFolder, WhatCannotBeRenamedKeepsItsNameAndTheReasonIsThere)
{
    const std::string longest = std::string(251, 'x') + ".kxp";
    Write({"a.kxp", longest});
    m_folder.MakeFolder("a.kxp.done");

    EXPECT_FALSE(RenameToDone(FromUtf8(m_folder / "a.kxp")));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_FALSE(RenameToDone(FromUtf8(m_folder / longest)));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_EQ((Names{"a.kxp", longest}), Listed(L"*.kxp"));
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(PackageFolder, OfALinkTheNameIsRemovedAndAFolderIsNot)
{
    Write({"target"});
    m_folder.MakeFolder("folder");
    ASSERT_EQ(0, symlink("target", (m_folder / "link").c_str()));

    EXPECT_TRUE(RemoveName(FromUtf8(m_folder / "link")));
    EXPECT_FALSE(RemoveName(FromUtf8(m_folder / "folder")));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_FALSE(RemoveName(FromUtf8(m_folder / "missing")));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_TRUE(m_log.Records().empty());
    EXPECT_EQ(Names{"target"}, Listed(L"*"));
    EXPECT_TRUE(Exists(m_folder / "folder"));
}

} // namespace
