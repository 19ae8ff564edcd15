#include "cmdline/WorkFolder.h"

#include <atomic>
#include <string>
#include <thread>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

#include "support/Capture.h"
#include "support/TempFolder.h"

using VelTest::Exists;
using VelTest::ModeOf;

namespace {

void Create(const std::string& path)
{
    CreateWorkFolder(VelCore::FromUtf8(path));
}

class WorkFolder : public testing::Test
{
protected:
    VelTest::CTempFolder m_folder;
    VelTest::CLogCapture m_log;
};

TEST_F(WorkFolder, IsForTheOwnerOnly)
{
    Create(m_folder / "work");
    EXPECT_EQ(0700u, ModeOf(m_folder / "work"));
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(WorkFolder, IsMadeWithAllItsParents)
{
    Create(m_folder / "a/b/c/work");
    for (const char* level : {"a", "a/b", "a/b/c", "a/b/c/work"})
        EXPECT_EQ(0700u, ModeOf(m_folder / level)) << level;
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(WorkFolder, ExistingParentsKeepTheirRights)
{
    m_folder.MakeFolder("a");
    ASSERT_EQ(0, chmod((m_folder / "a").c_str(), 0755));
    Create(m_folder / "a/work");
    EXPECT_EQ(0755u, ModeOf(m_folder / "a"));
    EXPECT_EQ(0700u, ModeOf(m_folder / "a/work"));
}

TEST_F(WorkFolder, AnExistingOneKeepsItsRights)
{
    m_folder.MakeFolder("work");
    ASSERT_EQ(0, chmod((m_folder / "work").c_str(), 0755));
    Create(m_folder / "work");
    EXPECT_EQ(0755u, ModeOf(m_folder / "work"));
}

TEST_F(WorkFolder, IsMadeBySeveralAtOnceWithoutAnError)
{
    for (int round = 0; round < 200; ++round) {
        const std::string path = m_folder / ("round " + std::to_string(round) + "/a/work");
        std::atomic<int> ready{0};
        const auto create = [&ready, &path] {
            for (++ready; ready < 2;) {
            }
            Create(path);
        };
        std::thread other(create);
        create();
        other.join();
        ASSERT_EQ(0700u, ModeOf(path));
    }
    wxLog::FlushActive();
    EXPECT_TRUE(m_log.Records().empty()) << m_log.Records().front().text;
}

TEST_F(WorkFolder, NamesOfAnyLettersAreMade)
{
    Create(m_folder / "caf\xC3\xA9 x/work");
    EXPECT_EQ(0700u, ModeOf(m_folder / "caf\xC3\xA9 x/work"));
}

TEST_F(WorkFolder, AFileInTheWayIsReported)
{
    m_folder.Write("a", "");
    Create(m_folder / "a/work");
    EXPECT_FALSE(Exists(m_folder / "a/work"));
    EXPECT_EQ(1u, m_log.Texts(wxLOG_Error).size());
}

TEST_F(WorkFolder, AUserWithoutPrivilegesMakesItToo)
{
    ASSERT_EQ(0, chmod(m_folder.Path().c_str(), 0777));
    const std::string path = m_folder / "a/b/work";
    const pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            _exit(2);
        Create(path);
        _exit(access(path.c_str(), R_OK | W_OK | X_OK) == 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    EXPECT_EQ(0700u, ModeOf(m_folder / "a"));
    EXPECT_EQ(0700u, ModeOf(path));
}

} // namespace
