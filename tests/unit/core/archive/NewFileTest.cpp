#include "archive/NewFile.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "archive/TemporaryName.h"
#include "support/Capture.h"
#include "support/TempFolder.h"

using VelCore::CDescriptor;
using VelCore::CNewFile;
using VelCore::TemporaryName;
using VelTest::Exists;
using VelTest::ModeOf;
using VelTest::ReadFile;

namespace {

namespace fs = std::filesystem;

class NewFile : public testing::Test
{
protected:
    CNewFile Create()
    {
        std::string reason;
        auto file = CNewFile::Create(m_descriptor.Get(), m_number, reason);
        EXPECT_TRUE(file) << reason;
        return std::move(*file);
    }

    std::set<std::string> Names() const
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_folder.Path()))
            names.insert(entry.path().filename());
        return names;
    }

    using Set = std::set<std::string>;

    VelTest::CTempFolder m_folder;
    VelTest::CLogCapture m_log;
    CDescriptor m_descriptor = VelCore::OpenAt(AT_FDCWD, m_folder.Path().c_str(), O_RDONLY | O_DIRECTORY);
    std::uint64_t m_number = 7;
    std::string m_reason;
};

TEST_F(NewFile, AppearsUnderItsNameWhenItIsPutInPlace)
{
    CNewFile file = Create();
    EXPECT_TRUE(file.Write("first ", m_reason));
    EXPECT_TRUE(file.Write("", m_reason));
    EXPECT_TRUE(file.Write("second", m_reason));
    EXPECT_EQ((Set{TemporaryName(7)}), Names());
    EXPECT_EQ(0600u, ModeOf(m_folder / TemporaryName(7)));

    EXPECT_TRUE(file.PutInPlace("a", 0664, m_reason));

    EXPECT_EQ((Set{"a"}), Names());
    EXPECT_EQ("first second", ReadFile(m_folder / "a"));
    EXPECT_EQ(0664u, ModeOf(m_folder / "a"));
}

TEST_F(NewFile, IsGoneWhenItIsNotPutInPlace)
{
    m_folder.Write("a", "old");
    {
        CNewFile file = Create();
        EXPECT_TRUE(file.Write("half", m_reason));
    }
    EXPECT_EQ((Set{"a"}), Names());
    EXPECT_EQ("old", ReadFile(m_folder / "a"));
}

TEST_F(NewFile, IsGoneWhenItCannotBePutInPlace)
{
    m_folder.MakeFolder("folder");
    {
        CNewFile file = Create();
        EXPECT_FALSE(file.PutInPlace("folder", 0644, m_reason));
        EXPECT_EQ("cannot put the file in place: Is a directory", m_reason);
    }
    EXPECT_EQ((Set{"folder"}), Names());
}

TEST_F(NewFile, KeepsItsPlaceWhenItIsMoved)
{
    CNewFile file = Create();
    {
        CNewFile moved = std::move(file);
        EXPECT_TRUE(moved.PutInPlace("a", 0644, m_reason));
    }
    EXPECT_EQ((Set{"a"}), Names());
}

TEST_F(NewFile, PassesOverNamesThatAreTaken)
{
    m_folder.Write(TemporaryName(7), "not ours");
    fs::create_symlink(m_folder / "elsewhere", m_folder / TemporaryName(8));

    CNewFile file = Create();
    EXPECT_TRUE(file.Write("new", m_reason));

    EXPECT_EQ(10u, m_number);
    EXPECT_EQ((Set{TemporaryName(7), TemporaryName(8), TemporaryName(9)}), Names());
    EXPECT_EQ("not ours", ReadFile(m_folder / TemporaryName(7)));
}

TEST_F(NewFile, SaysWhyItCannotBeCreated)
{
    fs::remove(m_folder.Path());
    EXPECT_FALSE(CNewFile::Create(m_descriptor.Get(), m_number, m_reason));
    EXPECT_EQ("cannot create a file: No such file or directory", m_reason);
    fs::create_directory(m_folder.Path());
}

TEST_F(NewFile, DoesNotTryNamesForEver)
{
    for (std::uint64_t number = 7; number < 107; ++number)
        m_folder.Write(TemporaryName(number), "");
    EXPECT_FALSE(CNewFile::Create(m_descriptor.Get(), m_number, m_reason));
    EXPECT_EQ("cannot create a file: no temporary name is free", m_reason);
}

TEST_F(NewFile, LeftoversAreRemoved)
{
    m_folder.Write(TemporaryName(1), "half");
    m_folder.Write(TemporaryName(2), "");
    ASSERT_EQ(0, chmod((m_folder / TemporaryName(2)).c_str(), 0));
    m_folder.Write("a", "whole");

    VelCore::RemoveLeftovers(m_descriptor.Get());

    EXPECT_EQ((Set{"a"}), Names());
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(NewFile, OneThatIsBeingWrittenIsNoLeftover)
{
    CNewFile file = Create();

    VelCore::RemoveLeftovers(m_descriptor.Get());

    EXPECT_TRUE(file.PutInPlace("a", 0644, m_reason)) << m_reason;
    EXPECT_EQ((Set{"a"}), Names());
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(NewFile, OnlyRegularFilesAreLeftovers)
{
    m_folder.MakeFolder(TemporaryName(1));
    fs::create_symlink("nowhere", m_folder / TemporaryName(2));
    ASSERT_EQ(0, mkfifo((m_folder / TemporaryName(3)).c_str(), 0600));
    const auto before = Names();

    VelCore::RemoveLeftovers(m_descriptor.Get());

    EXPECT_EQ(before, Names());
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(NewFile, OtherNamesAreNoLeftovers)
{
    m_folder.Write(TemporaryName(1) + "0", "");
    m_folder.Write(".vel-unfinished-", "");
    const auto before = Names();

    VelCore::RemoveLeftovers(m_descriptor.Get());

    EXPECT_EQ(before, Names());
}

TEST_F(NewFile, FilesOfOthersAreNoLeftovers)
{
    const std::string path = m_folder.Write(TemporaryName(1), "");
    ASSERT_EQ(0, chown(path.c_str(), 65534, 65534));

    VelCore::RemoveLeftovers(m_descriptor.Get());

    EXPECT_TRUE(Exists(path));
}

TEST_F(NewFile, ALeftoverThatCannotBeRemovedIsAWarning)
{
    const std::string path = m_folder.Write(TemporaryName(1), "");
    ASSERT_EQ(0, chown(path.c_str(), 65534, 65534));
    ASSERT_EQ(0, chmod(m_folder.Path().c_str(), 0755));
    const pid_t child = fork();
    if (child == 0) {
        if (setuid(65534) != 0)
            _exit(2);
        VelCore::RemoveLeftovers(m_descriptor.Get());
        const std::vector<std::string> expected = {"Unable to remove the unfinished file '" + TemporaryName(1) +
                                                   "': Permission denied"};
        _exit(m_log.Texts(wxLOG_Warning) == expected ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

// The instant between creation and lock belongs to whoever comes first.
TEST_F(NewFile, WritersAndCleanersDoNotDisturbEachOther)
{
    std::atomic<bool> isDone = false;
    std::thread cleaner([&] {
        while (!isDone)
            VelCore::RemoveLeftovers(m_descriptor.Get());
    });
    for (int round = 0; round < 500; ++round) {
        const std::string name = std::to_string(round);
        CNewFile file = Create();
        EXPECT_TRUE(file.Write(name, m_reason)) << m_reason;
        EXPECT_TRUE(file.PutInPlace(name, 0644, m_reason)) << m_reason;
        EXPECT_EQ(name, ReadFile(m_folder / name));
    }
    isDone = true;
    cleaner.join();
    EXPECT_EQ(500u, Names().size());
    EXPECT_TRUE(m_log.Records().empty());
}

} // namespace
