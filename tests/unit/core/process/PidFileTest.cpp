#include <VelCore/PidFile.h>

#include <csignal>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "process/ProcessInfo.h"

#include "support/Capture.h"
#include "support/TempFolder.h"

using VelCore::ReadPidFile;
using VelCore::WritePidFile;

namespace {

const std::string kOwnLine = std::to_string(getpid()) + "\n";

// A process that runs another executable and does nothing.
class CSleeper
{
public:
    CSleeper() : m_process(fork())
    {
        if (m_process == 0) {
            execlp("sleep", "sleep", "600", static_cast<char*>(nullptr));
            _exit(127);
        }
        // It is ours until exec has happened.
        while (VelCore::ProcessExecutable(m_process) == VelCore::ProcessExecutable(getpid()))
            usleep(1000);
    }
    ~CSleeper()
    {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    CSleeper(const CSleeper&) = delete;
    CSleeper& operator=(const CSleeper&) = delete;

    pid_t Process() const { return m_process; }

private:
    pid_t m_process;
};

class PidFile : public testing::Test
{
protected:
    int Read() const { return ReadPidFile(wxString::FromUTF8(m_path)); }
    bool Write() const { return WritePidFile(wxString::FromUTF8(m_path)); }

    // Moves the time of the file; the processes of a test are seconds old at most.
    void SetAge(int seconds) const
    {
        struct timespec times[2] = {};
        clock_gettime(CLOCK_REALTIME, &times[1]);
        times[1].tv_sec -= seconds;
        times[0] = times[1];
        ASSERT_EQ(0, utimensat(AT_FDCWD, m_path.c_str(), times, 0));
    }

    void WriteOld(pid_t process) const
    {
        m_folder.Write("a.pid", std::to_string(process) + "\n");
        SetAge(3600);
    }

    VelTest::CTempFolder m_folder;
    const std::string m_path = m_folder / "a.pid";
    VelTest::CLogCapture m_log;
};

TEST_F(PidFile, HoldsTheOwnIdForEverybodyToRead)
{
    const mode_t before = umask(0777);
    const bool written = Write();
    umask(before);
    EXPECT_TRUE(written);
    EXPECT_EQ(kOwnLine, VelTest::ReadFile(m_path));
    EXPECT_EQ(0644U, VelTest::ModeOf(m_path));
    EXPECT_EQ(getpid(), Read());
}

TEST_F(PidFile, WritingReplaces)
{
    m_folder.Write("a.pid", "99999 and more");
    EXPECT_TRUE(Write());
    EXPECT_EQ(kOwnLine, VelTest::ReadFile(m_path));
}

TEST_F(PidFile, ALinkIsReplacedNotFollowed)
{
    m_folder.Write("target", "kept");
    ASSERT_EQ(0, symlink((m_folder / "target").c_str(), m_path.c_str()));
    EXPECT_EQ(0, Read());
    EXPECT_TRUE(Write());
    EXPECT_EQ("kept", VelTest::ReadFile(m_folder / "target"));
    EXPECT_EQ(getpid(), Read());
}

TEST_F(PidFile, TheLongestOfNamesCanBeWritten)
{
    const std::string path = m_folder / (std::string(251, 'x') + ".pid");
    EXPECT_TRUE(WritePidFile(wxString::FromUTF8(path)));
    EXPECT_EQ(kOwnLine, VelTest::ReadFile(path));
}

TEST_F(PidFile, WhatCannotBeWrittenIsReportedAndLeavesNothing)
{
    mkdir(m_path.c_str(), 0700);
    EXPECT_FALSE(Write());
    ASSERT_EQ(1U, m_log.Texts(wxLOG_Error).size());
    EXPECT_EQ("Unable to write pid file '" + m_path + "' (error 21: Is a directory)", m_log.Texts(wxLOG_Error)[0]);
    rmdir(m_path.c_str());
    EXPECT_EQ(0, rmdir(m_folder.Path().c_str())) << "the folder is empty";

    EXPECT_FALSE(Write());
    EXPECT_EQ("Unable to write pid file '" + m_path + "' (error 2: No such file or directory)",
              m_log.Texts(wxLOG_Error).back());
    mkdir(m_folder.Path().c_str(), 0700);
}

TEST_F(PidFile, WhatIsNoRegularFileReadsAsNone)
{
    EXPECT_EQ(0, Read());
    mkdir(m_path.c_str(), 0700);
    EXPECT_EQ(0, Read());
    rmdir(m_path.c_str());
    mkfifo(m_path.c_str(), 0600);
    EXPECT_EQ(0, Read());
}

TEST_F(PidFile, ContentIsReadWhole)
{
    m_folder.Write("a.pid", std::string(40, '0') + kOwnLine);
    EXPECT_EQ(getpid(), Read());
    m_folder.Write("a.pid", std::string(5000, '0') + "1");
    EXPECT_EQ(0, Read());
    m_folder.Write("a.pid", kOwnLine + kOwnLine);
    EXPECT_EQ(0, Read());
}

TEST_F(PidFile, ADeadProcessIsGivenAsItStands)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    waitpid(child, nullptr, 0);
    WriteOld(child);
    EXPECT_EQ(child, Read());
}

TEST_F(PidFile, ANumberThatPassedToAnotherProgramReadsAsNone)
{
    const CSleeper sleeper;
    WriteOld(sleeper.Process());
    EXPECT_EQ(0, Read());
}

TEST_F(PidFile, AnotherProgramThatIsOlderThanTheFileCounts)
{
    const CSleeper sleeper;
    m_folder.Write("a.pid", std::to_string(sleeper.Process()));
    SetAge(-5);
    EXPECT_EQ(sleeper.Process(), Read());
}

TEST_F(PidFile, AYoungerProcessOfTheSameProgramCounts)
{
    int stop[2];
    ASSERT_EQ(0, pipe(stop));
    const pid_t child = fork();
    if (child == 0) {
        close(stop[1]);
        char byte = 0;
        _exit(static_cast<int>(read(stop[0], &byte, 1)));
    }
    WriteOld(child);
    EXPECT_EQ(child, Read());
    close(stop[0]);
    close(stop[1]);
    waitpid(child, nullptr, 0);
}

TEST_F(PidFile, TheOwnNumberFromALifeBeforeReadsAsNone)
{
    WriteOld(getpid());
    EXPECT_EQ(0, Read());
}

TEST_F(PidFile, AProcessThatHasEndedButWasNotWaitedForCounts)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    siginfo_t ended = {};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT));
    WriteOld(child);
    EXPECT_EQ(child, Read());
    waitpid(child, nullptr, 0);
}

} // namespace
