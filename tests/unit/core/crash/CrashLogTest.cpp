#include "crash/CrashLog.h"

#include <algorithm>
#include <cctype>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/TempFolder.h"

using VelCore::SetCrashLogPath;
using VelCore::WriteCrashRecord;
using VelTest::CDescriptorCapture;
using VelTest::CTempFolder;
using VelTest::ReadFile;

namespace {

// What is written to the file and to standard error.
struct Written
{
    std::string log;
    std::string shown;
};

Written Record(const std::string& path, std::string_view text)
{
    SetCrashLogPath(path);
    const CDescriptorCapture error(STDERR_FILENO);
    WriteCrashRecord(4711, text);
    SetCrashLogPath("");
    return {ReadFile(path), error.Text()};
}

TEST(CrashLog, RecordLooksLikeEveryOther)
{
    const CTempFolder folder;
    const Written written = Record(folder / "app.log", "tab\tand\nline");

    std::string shape = written.log;
    std::replace_if(
        shape.begin(), shape.end(), [](unsigned char byte) { return std::isdigit(byte) != 0; }, '0');
    EXPECT_EQ("0000-00-00 00:00:00 [0000] Error: tab\\tand\\nline\n", shape);
    EXPECT_EQ(written.log, written.shown);
    EXPECT_EQ(0600u, VelTest::ModeOf(folder / "app.log"));
}

TEST(CrashLog, RecordIsAppended)
{
    const CTempFolder folder;
    folder.Write("app.log", "before\n");
    EXPECT_EQ(0u, Record(folder / "app.log", "x").log.find("before\n2"));
}

TEST(CrashLog, MissingFolderIsMade)
{
    const CTempFolder folder;
    EXPECT_NE("", Record(folder / "log/app.log", "x").log);
    EXPECT_EQ(0700u, VelTest::ModeOf(folder / "log"));
}

TEST(CrashLog, LinkIsNotFollowed)
{
    const CTempFolder folder;
    const std::string target = folder.Write("target", "untouched");
    ASSERT_EQ(0, symlink(target.c_str(), (folder / "app.log").c_str()));

    const Written written = Record(folder / "app.log", "x");

    EXPECT_EQ("untouched", ReadFile(target));
    EXPECT_NE("", written.shown);
}

TEST(CrashLog, FifoDoesNotBlock)
{
    const CTempFolder folder;
    ASSERT_EQ(0, mkfifo((folder / "app.log").c_str(), 0600));
    SetCrashLogPath(folder / "app.log");
    const CDescriptorCapture error(STDERR_FILENO);
    WriteCrashRecord(4711, "x");
    SetCrashLogPath("");
    EXPECT_NE("", error.Text());
}

TEST(CrashLog, StandardErrorThatNobodyReadsDoesNotBlock)
{
    const CTempFolder folder;
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const int before = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    SetCrashLogPath(folder / "app.log");

    const std::string text(10000, 'x');
    for (int records = 0; records < 8; ++records) // more than a pipe holds
        WriteCrashRecord(4711, text);

    SetCrashLogPath("");
    dup2(before, STDERR_FILENO);
    for (const int descriptor : {ends[0], ends[1], before})
        close(descriptor);
    const std::string log = ReadFile(folder / "app.log");
    EXPECT_EQ(8, std::count(log.begin(), log.end(), '\n'));
}

TEST(CrashLog, WithoutAPathTheRecordIsShown)
{
    EXPECT_NE(std::string::npos, Record("", "text").shown.find("Error: text\n"));
}

TEST(CrashLog, LongRecordIsCutAndStillEnds)
{
    const CTempFolder folder;
    const std::string log = Record(folder / "app.log", std::string(20000, 'x')).log;
    EXPECT_EQ(16384u, log.size());
    EXPECT_EQ('\n', log.back());
}

TEST(CrashLog, TimeIsLocal)
{
    const CTempFolder folder;
    VelCore::SetCrashUtcOffset(std::int64_t{86400} * 365 * 100); // an offset that cannot be overlooked
    const std::string log = Record(folder / "app.log", "x").log;
    VelCore::SetCrashUtcOffset(0);
    EXPECT_EQ('2', log[0]);
    EXPECT_EQ('1', log[1]) << log;
}

} // namespace
