#include <cstdlib>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Script.h"
#include "support/TempFolder.h"

using VelTest::CScript;

namespace {

class FileSearcher : public testing::Test
{
protected:
    // The path's entries: `?` in two folders, each as a file and as a package's init.
    void SetUp() override
    {
        m_first = m_folder / "first";
        m_second = m_folder / "second";
        SetPath(m_first + "/?.lua;" + m_first + "/?/init.lua;" + m_second + "/?.lua;" + m_second + "/?/init.lua");
    }

    void SetPath(const std::string& path) { m_script.Value("package.path = '" + path + "'"); }

    std::string Require(const std::string& module) { return m_script.Value("return (require '" + module + "')"); }

    std::string Failure(const std::string& module)
    {
        return m_script.Value("local _, text = pcall(require, '" + module + "') return text");
    }

    VelTest::CTempFolder m_folder;
    std::string m_first;
    std::string m_second;
    CScript m_script;
};

TEST_F(FileSearcher, TheFirstEntryOfThePathWins)
{
    m_folder.Write("first/a/b.lua", "return 'first'");
    m_folder.Write("second/a/b.lua", "return 'second'");
    EXPECT_EQ("first", Require("a.b"));
}

TEST_F(FileSearcher, AFileGoesBeforeAPackage)
{
    m_folder.Write("first/a/b.lua", "return 'file'");
    m_folder.Write("first/a/b/init.lua", "return 'package'");
    EXPECT_EQ("file", Require("a.b"));
}

TEST_F(FileSearcher, AMissingFolderDoesNotHideTheNextEntry)
{
    m_folder.MakeFolder("first");
    m_folder.Write("second/a/b.lua", "return 'file'");
    m_folder.Write("second/a/c/init.lua", "return 'package'");
    EXPECT_EQ("file", Require("a.b"));
    EXPECT_EQ("package", Require("a.c"));
}

TEST_F(FileSearcher, APackageNeedsNoFolderInFrontOfItsName)
{
    m_folder.Write("second/a/init.lua", "return 'package'");
    EXPECT_EQ("package", Require("a"));
}

TEST_F(FileSearcher, WhatAppearsIsFoundByTheNextCall)
{
    EXPECT_NE("late", Failure("a.b"));
    m_folder.Write("first/a/b.lua", "return 'late'");
    EXPECT_EQ("late", Require("a.b"));
}

TEST_F(FileSearcher, EntriesThatPutTheNameElsewhereAreLookedAtByThemselves)
{
    SetPath(m_first + "/?.lua;" + m_first + "/lib?.lua;" + m_folder.Path() + "/?/second/?.lua");
    m_folder.Write("first/liba/b.lua", "return 'lib'");
    m_folder.Write("c/d/second/c/d.lua", "return 'twice'");
    EXPECT_EQ("lib", Require("a.b"));
    EXPECT_EQ("twice", Require("c.d"));
}

TEST_F(FileSearcher, AChangedPathCountsFromTheNextCall)
{
    m_folder.Write("first/a.lua", "return 'first'");
    m_folder.Write("second/b.lua", "return 'second'");
    SetPath(m_first + "/?.lua");
    EXPECT_EQ("first", Require("a"));
    EXPECT_NE(std::string::npos, Failure("b").find("no file '" + m_first + "/b.lua'")) << Failure("b");
    SetPath(m_second + "/?.lua");
    EXPECT_EQ("second", Require("b"));
    SetPath("");
    EXPECT_EQ(std::string::npos, Failure("c").find("no file '" + m_second)) << Failure("c");
}

TEST_F(FileSearcher, AnEntryBetweenDoesNotHideAPackage)
{
    SetPath(m_first + "/?.lua;" + m_folder / "none.lua" + ";" + m_first + "/?/init.lua");
    m_folder.Write("first/a/b/init.lua", "return 'package'");
    EXPECT_EQ("package", Require("a.b"));
}

TEST_F(FileSearcher, AnEntryWithoutAMarkIsAFile)
{
    SetPath(m_first + "/?.lua;;" + m_folder / "all.lua" + ";");
    m_folder.Write("all.lua", "return 'all'");
    EXPECT_EQ("all", Require("a.b"));
}

TEST_F(FileSearcher, EveryEntryIsNamedInTheMessage)
{
    const std::string tried = "\n\tno file '" + m_first + "/a/b.lua'\n\tno file '" + m_first +
                              "/a/b/init.lua'\n\tno file '" + m_second + "/a/b.lua'\n\tno file '" + m_second +
                              "/a/b/init.lua'\n";
    EXPECT_NE(std::string::npos, Failure("a.b").find(tried)) << Failure("a.b");
}

TEST_F(FileSearcher, AFileInPlaceOfAFolderIsNoModule)
{
    m_folder.Write("first/a", "");
    m_folder.Write("second/a/b.lua", "return 'second'");
    EXPECT_EQ("second", Require("a.b"));
}

TEST_F(FileSearcher, ALinkedFolderIsFollowed)
{
    m_folder.MakeFolder("first");
    m_folder.Write("elsewhere/b.lua", "return 'linked'");
    ASSERT_EQ(0, symlink((m_folder / "elsewhere").c_str(), (m_first + "/a").c_str()));
    EXPECT_EQ("linked", Require("a.b"));
}

TEST_F(FileSearcher, ANameThatIsAnAbsolutePathIsFoundThroughAnEntryThatAddsNoFolder)
{
    // A dot in the folder's own name would be read as a separator.
    std::string place = testing::TempDir() + "vel_absoluteXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(place.data()));
    const std::string link = place + "/link";
    SetPath("?.lua");
    m_folder.Write("first/a.lua", "return 'absolute'");
    EXPECT_EQ(0, symlink(m_first.c_str(), link.c_str()));
    EXPECT_EQ("absolute", Require(link + "/a"));
    unlink(link.c_str());
    rmdir(place.c_str());
}

TEST_F(FileSearcher, APathThatIsNoTextIsAnError)
{
    m_script.Value("package.path = {}");
    EXPECT_NE(std::string::npos, Failure("a").find("'package.path' must be a string"));
}

} // namespace
