#include "Pack.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "archive/ZipFormat.h"
#include "support/TempFolder.h"
#include "support/ZipBuilder.h"

using VelCore::ZipEntry;
using VelTest::CMemorySource;
using VelTest::CTempFolder;

namespace {

std::optional<Failure> AnyContent(const SourceFile&, const std::string&)
{
    return std::nullopt;
}

std::vector<ZipEntry> Pack(const std::vector<SourceFile>& files)
{
    std::string archive;
    const auto failure = PackFiles(files, AnyContent, archive);
    EXPECT_FALSE(failure) << failure->text;
    std::vector<ZipEntry> entries;
    std::string reason;
    EXPECT_TRUE(VelCore::ReadZipDirectory(CMemorySource(archive), entries, reason)) << reason;
    return entries;
}

void ExpectProblem(const std::vector<SourceFile>& files, Status status, const std::string& text)
{
    std::string archive;
    const auto failure = PackFiles(files, AnyContent, archive);
    ASSERT_TRUE(failure);
    EXPECT_EQ(status, failure->status);
    EXPECT_EQ(text, failure->text);
}

} // namespace

TEST(Pack, OrderTimesAndModesDoNotShow)
{
    const CTempFolder folder;
    const std::string one = folder.Write("one", "1");
    const std::string two = folder.Write("two", "2");
    std::string first;
    ASSERT_FALSE(PackFiles({{"a", one, false}, {"b", two, false}}, AnyContent, first));

    const timespec times[] = {{1, 0}, {1, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, one.c_str(), times, 0));
    ASSERT_EQ(0, ::chmod(two.c_str(), 0600));
    std::string second;
    ASSERT_FALSE(PackFiles({{"b", two, false}, {"a", one, false}}, AnyContent, second));

    EXPECT_EQ(first, second);
}

TEST(Pack, NamesAreSortedBytewise)
{
    const CTempFolder folder;
    const std::string file = folder.Write("file", "");

    const std::vector<ZipEntry> entries =
        Pack({{"b", file, false}, {"\xC3\xA9", file, false}, {"a/b", file, false}, {"B", file, false}});

    ASSERT_EQ(4u, entries.size());
    EXPECT_EQ("B", entries[0].name);
    EXPECT_EQ("a/b", entries[1].name);
    EXPECT_EQ("b", entries[2].name);
    EXPECT_EQ("\xC3\xA9", entries[3].name);
}

TEST(Pack, OwnersRightToExecuteDecidesTheMode)
{
    const CTempFolder folder;
    std::vector<SourceFile> files;
    for (const mode_t mode : {0400, 0611, 0700, 04751}) {
        const std::string path = folder.Write(std::to_string(mode), "");
        ASSERT_EQ(0, ::chmod(path.c_str(), mode));
        files.push_back({std::to_string(files.size()), path, false});
    }
    folder.MakeFolder("empty");
    files.push_back({"empty/", folder / "empty", false});

    const std::vector<ZipEntry> entries = Pack(files);

    ASSERT_EQ(5u, entries.size());
    const unsigned wanted[] = {S_IFREG | 0644, S_IFREG | 0644, S_IFREG | 0755, S_IFREG | 0755, S_IFDIR | 0755};
    for (std::size_t at = 0; at < entries.size(); ++at)
        EXPECT_EQ(wanted[at], entries[at].UnixMode()) << entries[at].name;
}

TEST(Pack, ProblemsNameTheFile)
{
    const CTempFolder folder;
    const std::string file = folder.Write("file", "");
    ASSERT_EQ(0, ::symlink("file", (folder / "link").c_str()));
    ASSERT_EQ(0, ::mkfifo((folder / "pipe").c_str(), 0600));

    ExpectProblem({{"a", folder / "absent", false}}, Status::Failed,
                  "cannot read '" + (folder / "absent") + "': No such file or directory");
    ExpectProblem({{"a", folder / "link", false}}, Status::Refused,
                  "'" + (folder / "link") + "' cannot be packed: it is a symbolic link");
    ExpectProblem({{"a", folder / "pipe", false}}, Status::Refused,
                  "'" + (folder / "pipe") + "' cannot be packed: it is not a regular file");
    ExpectProblem({{"a", file, false}, {"b", file, false}, {"a", file, false}}, Status::Refused,
                  "'" + file + "' cannot be packed: '" + file + "' has the same name in the archive");
}

TEST(Pack, LinkThatSomebodyNamedIsFollowed)
{
    const CTempFolder folder;
    folder.Write("file", "content");
    ASSERT_EQ(0, ::symlink("file", (folder / "link").c_str()));

    const std::vector<ZipEntry> entries = Pack({{"a", folder / "link", true}});

    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(7u, entries[0].size);
    EXPECT_EQ(unsigned{S_IFREG | 0644}, entries[0].UnixMode());
}

TEST(Pack, NameThatTheAgentWouldRefuseIsRefused)
{
    const CTempFolder folder;
    const std::string file = folder.Write("file", "");
    for (const char* name : {"../a", "a\\b", "c:a", "/a"}) {
        std::string archive;
        const auto failure = PackFiles({{name, file, false}}, AnyContent, archive);
        ASSERT_TRUE(failure) << name;
        EXPECT_EQ(Status::Refused, failure->status);
        EXPECT_EQ(0u, failure->text.find("'" + file + "' cannot be packed: the agent would refuse its name: "))
            << failure->text;
    }
}

TEST(Pack, CheckStopsThePacking)
{
    const CTempFolder folder;
    const ContentCheck check = [](const SourceFile& file, const std::string& content) -> std::optional<Failure> {
        if (content != "bad")
            return std::nullopt;
        return Failure{Status::Refused, file.name + " is bad"};
    };
    std::string archive;

    const auto failure =
        PackFiles({{"good", folder.Write("1", "good"), false}, {"b", folder.Write("2", "bad"), false}}, check, archive);

    ASSERT_TRUE(failure);
    EXPECT_EQ("b is bad", failure->text);
    EXPECT_TRUE(archive.empty());
}
