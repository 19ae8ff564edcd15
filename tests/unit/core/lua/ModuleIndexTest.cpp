#include "lua/ModuleIndex.h"

#include <set>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include <VelCore/SkippedArchives.h>

#include "archive/ZipArchive.h"

#include "support/Capture.h"
#include "support/TempFolder.h"
#include "support/ZipBuilder.h"

using VelCore::ArchivedModule;
using VelCore::CModuleIndex;
using VelTest::CZipBuilder;
using VelTest::ZipItem;

namespace {

struct Entry
{
    const char* name;
    const char* content;
};

class ModuleIndex : public testing::Test
{
protected:
    std::string Archive(const std::string& name, const std::vector<Entry>& entries) const
    {
        CZipBuilder builder;
        for (const Entry& entry : entries) {
            ZipItem item;
            item.name = entry.name;
            item.content = entry.content;
            builder.items.push_back(item);
        }
        return m_folder.Write(name, builder.Build());
    }

    // The content of the module; "-" when it is not found.
    static std::string Find(const CModuleIndex& index, const std::string& path)
    {
        const ArchivedModule* module = index.Find(path);
        if (!module)
            return "-";
        std::string content;
        std::string reason;
        return module->archive->Read(*module->entry, content, reason) ? content : "damaged: " + reason;
    }

    VelTest::CTempFolder m_folder;
    VelTest::CLogCapture m_log;
};

TEST_F(ModuleIndex, AnEmptyListHoldsNothing)
{
    for (const char* list : {"", ";", ";;;"}) {
        const CModuleIndex index(list);
        EXPECT_EQ(nullptr, index.Find("a")) << list;
        EXPECT_EQ("", index.NotFoundText("a")) << list;
    }
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(ModuleIndex, FindsFilesAndPackages)
{
    const CModuleIndex index(Archive("a.kxe", {{"a.lua", "1"}, {"b/", ""}, {"b/init.lua", "2"}, {"b/c.lua", "3"}}));
    EXPECT_EQ("1", Find(index, "a"));
    EXPECT_EQ("2", Find(index, "b"));
    EXPECT_EQ("2", Find(index, "b/init"));
    EXPECT_EQ("3", Find(index, "b/c"));
    for (const char* path : {"", "c", "a.lua", "b/", "A", "/a", "b//c"})
        EXPECT_EQ("-", Find(index, path)) << path;
}

TEST_F(ModuleIndex, AFileGoesBeforeAPackageWhereverItStands)
{
    EXPECT_EQ("file", Find(CModuleIndex(Archive("1.kxe", {{"a.lua", "file"}, {"a/init.lua", "package"}})), "a"));
    EXPECT_EQ("file", Find(CModuleIndex(Archive("2.kxe", {{"a/init.lua", "package"}, {"a.lua", "file"}})), "a"));
}

TEST_F(ModuleIndex, OfEqualNamesTheLastOneCounts)
{
    const CModuleIndex index(
        Archive("a.kxe", {{"a.lua", "1"}, {"p/init.lua", "2"}, {"a.lua", "3"}, {"p/init.lua", "4"}}));
    EXPECT_EQ("3", Find(index, "a"));
    EXPECT_EQ("4", Find(index, "p"));
}

TEST_F(ModuleIndex, TheFirstArchiveThatHoldsTheModuleWins)
{
    const std::string first = Archive("1.kxe", {{"a/init.lua", "first"}});
    const std::string second = Archive("2.kxe", {{"a.lua", "second"}, {"b.lua", "second"}});
    const CModuleIndex index(first + ";" + second);
    EXPECT_EQ("first", Find(index, "a")); // a package in the first goes before a file in the second
    EXPECT_EQ("second", Find(index, "b"));
    EXPECT_EQ("second", Find(CModuleIndex(second + ";" + first), "a"));
}

TEST_F(ModuleIndex, EmptyPiecesOfTheListDoNotCount)
{
    const std::string path = Archive("a.kxe", {{"a.lua", "1"}});
    const CModuleIndex index(";;" + path + ";;");
    EXPECT_EQ("1", Find(index, "a"));
    EXPECT_EQ("\n\tno module 'x' in archive '" + path + "'", index.NotFoundText("x"));
}

TEST_F(ModuleIndex, OnlyRegularFilesWithTheSuffixAreModules)
{
    ZipItem link;
    link.name = "link.lua";
    link.content = "elsewhere.lua";
    link.externalAttributes = 0120777u << 16;
    ZipItem device = link;
    device.name = "device.lua";
    device.externalAttributes = 0020666u << 16;
    ZipItem file = link;
    file.name = "file.lua";
    file.externalAttributes = 0100644u << 16;
    ZipItem other = file;
    other.name = "text.txt";
    ZipItem folder = file;
    folder.name = "folder.lua/";
    folder.content = "";
    const CModuleIndex index(m_folder.Write("a.kxe", CZipBuilder({link, device, file, other, folder}).Build()));
    EXPECT_EQ("elsewhere.lua", Find(index, "file"));
    for (const char* path : {"link", "device", "text", "text.txt", "folder", "folder.lua"})
        EXPECT_EQ("-", Find(index, path)) << path;
}

TEST_F(ModuleIndex, WhereAModuleWasLookedForIsALinePerArchive)
{
    const std::string first = Archive("1.kxe", {});
    const std::string missing = m_folder / "missing.kxe";
    const std::string text = CModuleIndex(first + ";" + missing).NotFoundText("a.b");
    const auto lines = VelTest::Lines(text);
    ASSERT_EQ(3u, lines.size()) << text;
    EXPECT_EQ("", lines[0]);
    EXPECT_EQ("\tno module 'a.b' in archive '" + first + "'", lines[1]);
    EXPECT_EQ(0u, lines[2].find("\tarchive '" + missing + "' skipped: ")) << lines[2];
}

TEST_F(ModuleIndex, AnArchiveThatCannotBeReadIsReportedOnceAndSkipped)
{
    const std::string damaged = m_folder.Write("damaged.kxe", "not an archive");
    const std::string missing = m_folder / "missing.kxe";
    const std::string good = Archive("good.kxe", {{"a.lua", "1"}});
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ("1", Find(CModuleIndex(damaged + ";" + missing + ";" + good), "a"));
    const auto errors = m_log.Texts(wxLOG_Error);
    ASSERT_EQ(2u, errors.size());
    EXPECT_NE(std::string::npos, errors[0].find(damaged)) << errors[0];
    EXPECT_NE(std::string::npos, errors[1].find(missing)) << errors[1];
    EXPECT_NE(std::string::npos, errors[1].find("No such file")) << errors[1];
    EXPECT_EQ(2u, m_log.Records().size());
}

TEST_F(ModuleIndex, AnArchiveThatIsReplacedDoesNotDisturb)
{
    const std::string path = Archive("a.kxe", {{"a.lua", "old"}});
    const CModuleIndex index(path);
    ASSERT_EQ(0, unlink(path.c_str()));
    Archive("a.kxe", {{"a.lua", "new"}, {"b.lua", "new"}});
    EXPECT_EQ("old", Find(index, "a"));
    EXPECT_EQ("old", Find(CModuleIndex(path), "a")) << "its directory is read once";
}

TEST_F(ModuleIndex, AnArchiveCutShortInPlaceGivesItsOldContentOrAReason)
{
    for (const std::size_t size : {100u, 1000000u}) {
        ZipItem item;
        item.name = "a.lua";
        item.content = std::string(size, '-');
        item.method = 0; // as long in the archive as it is
        const std::string path = m_folder.Write("a" + std::to_string(size) + ".kxe", CZipBuilder({item}).Build());
        const CModuleIndex index(path);
        ASSERT_EQ(0, truncate(path.c_str(), 10));
        const std::string content = Find(index, "a");
        EXPECT_TRUE(content == item.content || content.find("damaged: ") == 0) << size << " " << content.substr(0, 80);
    }
}

TEST_F(ModuleIndex, AnArchiveListedTwiceIsOpenedOnce)
{
    const std::string path = Archive("a.kxe", {{"a.lua", "1"}});
    const CModuleIndex index(path + ";" + path);
    const CModuleIndex again(path);
    EXPECT_EQ(index.Find("a")->archive, again.Find("a")->archive);
}

TEST_F(ModuleIndex, ArchivesThatWereLeftOutAreNamedWithTheirReason)
{
    const std::string used = Archive("used.kxe", {{"a.lua", ""}});
    VelCore::NoteSkippedArchive(wxString::FromUTF8(m_folder / "old.kxe"), L"first reason");
    VelCore::NoteSkippedArchive(wxString::FromUTF8(m_folder / "old.kxe"), L"it is too old");
    VelCore::NoteSkippedArchive(wxString::FromUTF8(used), L"its pattern left it out");

    const std::string text = CModuleIndex(used).NotFoundText("x");

    EXPECT_EQ(0U, text.find("\n\tno module 'x' in archive '" + used + "'\n")) << text;
    const std::string line = "\n\tarchive '" + (m_folder / "old.kxe") + "' skipped: it is too old";
    EXPECT_NE(std::string::npos, text.find(line)) << text;
    EXPECT_EQ(text.find("old.kxe"), text.rfind("old.kxe")) << text;
    EXPECT_EQ(std::string::npos, text.find("its pattern left it out")) << "it is searched all the same: " << text;
}

TEST_F(ModuleIndex, AnArchiveIsOneLineWhateverItsName)
{
    const std::string odd = Archive("odd\n\tno file '\x1b\xff.kxe", {});
    VelCore::NoteSkippedArchive("/left\nout.kxe", "it is too old");
    const std::string text = CModuleIndex(odd + ";" + odd + "2").NotFoundText("x");
    VelCore::NoteSkippedArchive("/left\nout.kxe", "");

    const std::string shown = m_folder / "odd\\n\\tno file '\\x1b\\xff.kxe";
    EXPECT_NE(std::string::npos, text.find("\n\tno module 'x' in archive '" + shown + "'\n")) << text;
    EXPECT_NE(std::string::npos, text.find("\n\tarchive '" + shown + "2' skipped: ")) << text;
    EXPECT_NE(std::string::npos, text.find("\n\tarchive '/left\\nout.kxe' skipped: it is too old")) << text;
}

TEST_F(ModuleIndex, NamesBelowAreTheLastPartsOfModuleNames)
{
    const std::string one = Archive("1.kxe", {{"top.lua", ""},
                                              {"r/b.lua", ""},
                                              {"r/B.lua", ""},
                                              {"r/deep/er.lua", ""},
                                              {"r/pack/init.lua", ""},
                                              {"r/text.txt", ""},
                                              {"r/dotted.name.lua", ""},
                                              {"rr/other.lua", ""}});
    const std::string two = Archive("2.kxe", {{"r/a.lua", ""}, {"r/b.lua", ""}, {"r.lua", ""}});
    const CModuleIndex index(one + ";" + two);

    using Names = std::vector<std::string>;
    EXPECT_EQ((Names{"B", "a", "b", "pack"}), index.NamesBelow("r"));
    EXPECT_EQ((Names{"er"}), index.NamesBelow("r/deep"));
    EXPECT_EQ((Names{"r", "top"}), index.NamesBelow(""));
    EXPECT_EQ(Names{}, index.NamesBelow("nothing"));
}

} // namespace
