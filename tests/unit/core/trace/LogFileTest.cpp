#include "trace/LogFile.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <wx/log.h>

#include "support/Capture.h"
#include "support/RootDomain.h"
#include "support/TempFolder.h"

using VelCore::CLogFile;
using VelTest::CDescriptorCapture;
using VelTest::Exists;
using VelTest::Lines;
using VelTest::ModeOf;
using VelTest::ReadFile;

namespace {

const off_t kLimit = 10 * 1024 * 1024; // bytes; a file of this size is moved away

void Append(const std::string& text)
{
    CLogFile::Get().Append(std::time(nullptr), "Message", text);
}

// The text of a record; "" when the line has not the form of one.
std::string TextOf(const std::string& line)
{
    const std::string mark = "] Message: ";
    const std::size_t at = line.find(mark);
    return at == std::string::npos ? "" : line.substr(at + mark.size());
}

std::vector<std::string> TextsOf(const std::string& content)
{
    std::vector<std::string> texts;
    for (const std::string& line : Lines(content))
        texts.push_back(TextOf(line));
    return texts;
}

using Texts = std::vector<std::string>;

class LogFile : public testing::Test
{
protected:
    void SetUp() override
    {
        m_root->Set("app.path.work", Work());
        m_root->Set("app.name", "unit");
    }

    std::string Work() const { return m_folder / "work"; }
    std::string Log(int old = 0) const
    {
        return Work() + "/log/unit.log" + (old == 0 ? std::string() : "." + std::to_string(old));
    }
    Texts Logged(int old = 0) const { return TextsOf(ReadFile(Log(old))); }

    // Makes the log file, or an old one, this long without writing that much.
    void SetSize(off_t size, int old = 0) const
    {
        m_folder.MakeFolder("work/log");
        const int file = open(Log(old).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_LE(0, file);
        EXPECT_EQ(0, ftruncate(file, size));
        close(file);
    }

    // The next record finds the file full.
    void Fill() const { SetSize(kLimit); }

    off_t SizeOf(const std::string& path) const
    {
        struct stat status
        {
        };
        return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
    }

    // Expects that one record goes to standard error, after one line that holds `reason`.
    void ExpectRefused(const std::string& reason) const
    {
        const CDescriptorCapture error(STDERR_FILENO);
        Append("refused");
        const std::vector<std::string> lines = Lines(error.Text());
        ASSERT_EQ(2u, lines.size()) << error.Text();
        EXPECT_NE(std::string::npos, lines[0].find(reason)) << lines[0];
        EXPECT_EQ("refused", TextOf(lines[1]));
    }

    VelTest::CTempFolder m_folder;
    std::unique_ptr<VelCore::CDom> m_root = VelTest::NewRootDomain();
};

TEST_F(LogFile, RecordIsInTheFileWhenTheCallReturns)
{
    CLogFile::Get().Append(1763640896, "Warning", "one\ntwo");
    char stamp[64];
    const std::time_t when = 1763640896;
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", std::localtime(&when));
    EXPECT_EQ(std::string(stamp) + " [" + std::to_string(getpid()) + "] Warning: one\\ntwo\n", ReadFile(Log()));
}

TEST_F(LogFile, FolderAndFileAreForTheOwnerOnlyWhateverTheMask)
{
    for (const mode_t mask : {0000, 0022, 0777}) {
        const std::string name = "mask" + std::to_string(mask);
        m_root->Set("app.path.work", m_folder / name);
        const mode_t before = umask(mask);
        Append("text");
        umask(before);
        EXPECT_EQ(0700u, ModeOf(m_folder / name + "/log")) << std::oct << mask;
        EXPECT_EQ(0600u, ModeOf(m_folder / name + "/log/unit.log")) << std::oct << mask;
    }
}

TEST_F(LogFile, WhatWasOpenToOthersBeforeIsClosedToThem)
{
    m_folder.Write("work/log/unit.log", "");
    ASSERT_EQ(0, chmod((Work() + "/log").c_str(), 03775));
    ASSERT_EQ(0, chmod(Log().c_str(), 04664));
    Append("one");
    EXPECT_EQ(0700u, ModeOf(Work() + "/log"));
    EXPECT_EQ(0600u, ModeOf(Log()));
    EXPECT_EQ(Texts{"one"}, Logged());
}

TEST_F(LogFile, RightsThatTheOwnerLacksAreNotGiven)
{
    m_folder.Write("work/log/unit.log", "");
    ASSERT_EQ(0, chmod((Work() + "/log").c_str(), 0555));
    Append("one");
    EXPECT_EQ(0500u, ModeOf(Work() + "/log"));
    EXPECT_EQ(Texts{"one"}, Logged());
    chmod((Work() + "/log").c_str(), 0700);
}

TEST_F(LogFile, AnotherUsersFolderKeepsItsRights)
{
    m_folder.MakeFolder("work/log");
    ASSERT_EQ(0, chmod((Work() + "/log").c_str(), 0755));
    ASSERT_EQ(0, chown((Work() + "/log").c_str(), 65534, 65534));
    Append("one");
    EXPECT_EQ(0755u, ModeOf(Work() + "/log"));
    EXPECT_EQ(Texts{"one"}, Logged());
}

TEST_F(LogFile, TheTargetOfALinkInItsPlaceKeepsItsRights)
{
    const std::string target = m_folder.Write("target", "");
    ASSERT_EQ(0, chmod(target.c_str(), 0644));
    m_folder.MakeFolder("work/log");
    ASSERT_EQ(0, symlink(target.c_str(), Log().c_str()));
    ExpectRefused("cannot open log file");
    EXPECT_EQ(0644u, ModeOf(target));
}

TEST_F(LogFile, RecordsAreAppendedToAnExistingFile)
{
    m_folder.Write("work/log/unit.log", "before\n");
    Append("text");
    EXPECT_EQ("before", Lines(ReadFile(Log())).at(0));
    EXPECT_EQ("text", Logged().at(1));
}

TEST_F(LogFile, FollowsTheWorkFolderAndTheName)
{
    Append("one");
    m_root->Set("app.name", "other");
    Append("two");
    m_root->Set("app.path.work", m_folder / "elsewhere");
    Append("three");
    EXPECT_EQ(Texts{"one"}, Logged());
    EXPECT_EQ(Texts{"two"}, TextsOf(ReadFile(Work() + "/log/other.log")));
    EXPECT_EQ(Texts{"three"}, TextsOf(ReadFile(m_folder / "elsewhere/log/other.log")));
}

TEST_F(LogFile, WithoutAWorkFolderRecordsGoToStandardError)
{
    m_root->Remove("app.path.work");
    const CDescriptorCapture error(STDERR_FILENO);
    Append("text");
    EXPECT_EQ(Texts{"text"}, TextsOf(error.Text()));
}

TEST_F(LogFile, LastWordsOfTheProcessGoWhereTheOthersWent)
{
    Append("one");
    m_root.reset();
    Append("two");
    EXPECT_EQ((Texts{"one", "two"}), Logged());
}

TEST_F(LogFile, ARemovedFileIsStartedAnew)
{
    Append("one");
    ASSERT_EQ(0, unlink(Log().c_str()));
    Append("two");
    EXPECT_EQ(Texts{"two"}, Logged());
}

TEST_F(LogFile, AFileThatSomebodyMovesIsStartedAnew)
{
    Append("one");
    ASSERT_EQ(0, rename(Log().c_str(), (Work() + "/moved").c_str()));
    Append("two");
    EXPECT_EQ(Texts{"one"}, TextsOf(ReadFile(Work() + "/moved")));
    EXPECT_EQ(Texts{"two"}, Logged());
}

TEST_F(LogFile, AFolderThatSomebodyMovesIsMadeAnew)
{
    Append("one");
    ASSERT_EQ(0, rename((Work() + "/log").c_str(), (Work() + "/moved").c_str()));
    Append("two");
    EXPECT_EQ(Texts{"two"}, Logged());
    ASSERT_EQ(0, rename(Work().c_str(), (Work() + ".moved").c_str()));
    Append("three");
    EXPECT_EQ(Texts{"three"}, Logged());
}

TEST_F(LogFile, ALinkPutInItsPlaceLaterIsNotFollowedEither)
{
    Append("one");
    const std::string target = m_folder.Write("target", "");
    ASSERT_EQ(0, unlink(Log().c_str()));
    ASSERT_EQ(0, symlink(target.c_str(), Log().c_str()));
    ExpectRefused(Log());
    EXPECT_EQ("", ReadFile(target));
}

TEST_F(LogFile, ARemovedFolderIsMadeAnew)
{
    Append("one");
    ASSERT_EQ(0, unlink(Log().c_str()));
    ASSERT_EQ(0, rmdir((Work() + "/log").c_str()));
    Append("two");
    EXPECT_EQ(Texts{"two"}, Logged());
}

TEST_F(LogFile, ALinkInItsPlaceIsNotFollowed)
{
    const std::string target = m_folder.Write("target", "");
    m_folder.MakeFolder("work/log");
    ASSERT_EQ(0, symlink(target.c_str(), Log().c_str()));
    ExpectRefused(Log());
    EXPECT_EQ("", ReadFile(target));
}

TEST_F(LogFile, ADanglingLinkInItsPlaceIsNotFollowed)
{
    m_folder.MakeFolder("work/log");
    ASSERT_EQ(0, symlink((m_folder / "target").c_str(), Log().c_str()));
    ExpectRefused(Log());
    EXPECT_FALSE(Exists(m_folder / "target"));
}

TEST_F(LogFile, ALinkInTheFoldersPlaceIsNotFollowed)
{
    m_folder.MakeFolder("target");
    m_folder.MakeFolder("work");
    ASSERT_EQ(0, symlink((m_folder / "target").c_str(), (Work() + "/log").c_str()));
    ExpectRefused(Work() + "/log");
    EXPECT_FALSE(Exists(m_folder / "target/unit.log"));
}

TEST_F(LogFile, AFifoInItsPlaceDoesNotBlock)
{
    m_folder.MakeFolder("work/log");
    ASSERT_EQ(0, mkfifo(Log().c_str(), 0600));
    ExpectRefused(Log());
}

TEST_F(LogFile, AFifoThatSomebodyReadsGetsNothing)
{
    m_folder.MakeFolder("work/log");
    ASSERT_EQ(0, mkfifo(Log().c_str(), 0600));
    const int reader = open(Log().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ExpectRefused("not a regular file");
    char byte = 0;
    EXPECT_EQ(0, read(reader, &byte, 1));
    close(reader);
}

TEST_F(LogFile, AFolderInItsPlaceIsReported)
{
    m_folder.MakeFolder("work/log/unit.log");
    ExpectRefused(Log());
}

TEST_F(LogFile, AFileInTheFoldersPlaceIsReported)
{
    m_folder.Write("work/log", "");
    ExpectRefused(Work() + "/log");
}

TEST_F(LogFile, AnotherUsersFileIsNotWritten)
{
    m_folder.Write("work/log/unit.log", "");
    ASSERT_EQ(0, chown(Log().c_str(), 65534, 65534));
    ExpectRefused("another user");
    EXPECT_EQ("", ReadFile(Log()));
}

TEST_F(LogFile, TheReasonIsGivenOnceAndTheFileUsedAsSoonAsItCanBe)
{
    m_folder.MakeFolder("work/log/unit.log");
    {
        const CDescriptorCapture error(STDERR_FILENO);
        Append("one");
        Append("two");
        EXPECT_EQ((Texts{"", "one", "two"}), TextsOf(error.Text()));
    }
    ASSERT_EQ(0, rmdir(Log().c_str()));
    Append("three");
    EXPECT_EQ(Texts{"three"}, Logged());
    ASSERT_EQ(0, unlink(Log().c_str()));
    m_folder.MakeFolder("work/log/unit.log");
    ExpectRefused(Log()); // again with a reason: it is another failure
}

TEST_F(LogFile, ARecordThatTheDiskCutsShortGoesWholeToStandardErrorAndLeavesNothing)
{
    Append(std::string(10000, 'x')); // the limit below is for every file, also for what keeps standard error
    const auto room = static_cast<rlim_t>(SizeOf(Log()) + 10);
    struct rlimit before
    {
    };
    getrlimit(RLIMIT_FSIZE, &before);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    std::string shown;
    {
        const CDescriptorCapture error(STDERR_FILENO);
        const struct rlimit narrow
        {
            room, before.rlim_max
        };
        ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &narrow));
        Append("two");
        setrlimit(RLIMIT_FSIZE, &before);
        shown = error.Text();
    }
    std::signal(SIGXFSZ, handler);
    ASSERT_EQ(2u, TextsOf(shown).size()) << shown;
    EXPECT_EQ("two", TextsOf(shown)[1]);

    Append("three");
    EXPECT_EQ((Texts{std::string(10000, 'x'), "three"}), Logged());
}

TEST_F(LogFile, OneByteBelowTheLimitIsNotFull)
{
    SetSize(kLimit - 1);
    Append("text");
    EXPECT_FALSE(Exists(Log(1)));
    EXPECT_LT(kLimit, SizeOf(Log()));
}

TEST_F(LogFile, AFullFileBecomesTheNewestOldOne)
{
    Fill();
    Append("text");
    EXPECT_EQ(Texts{"text"}, Logged());
    EXPECT_EQ(kLimit, SizeOf(Log(1)));
    EXPECT_FALSE(Exists(Log(2)));
    EXPECT_EQ(0600u, ModeOf(Log()));
}

TEST_F(LogFile, FiveOldFilesAreKept)
{
    for (int old = 1; old <= 5; ++old)
        m_folder.Write("work/log/unit.log." + std::to_string(old), "old " + std::to_string(old));
    Fill();
    Append("text");
    EXPECT_EQ(kLimit, SizeOf(Log(1)));
    for (int old = 2; old <= 5; ++old)
        EXPECT_EQ("old " + std::to_string(old - 1), ReadFile(Log(old)));
    EXPECT_FALSE(Exists(Log(6)));
}

TEST_F(LogFile, AGapIsFilledBeforeAnOldFileIsGivenUp)
{
    for (const int old : {1, 2, 4, 5})
        m_folder.Write("work/log/unit.log." + std::to_string(old), "old " + std::to_string(old));
    Fill();
    Append("text");
    EXPECT_EQ("old 1", ReadFile(Log(2)));
    EXPECT_EQ("old 2", ReadFile(Log(3)));
    EXPECT_EQ("old 4", ReadFile(Log(4)));
    EXPECT_EQ("old 5", ReadFile(Log(5)));
}

TEST_F(LogFile, EveryRotationIsAtTheSameSize)
{
    for (int round = 0; round < 3; ++round) {
        Append("round");
        Fill();
    }
    Append("last");
    for (int old = 1; old <= 3; ++old)
        EXPECT_EQ(kLimit, SizeOf(Log(old))) << old;
}

TEST_F(LogFile, ARotationThatFailsLosesNoRecord)
{
    for (int old = 1; old <= 4; ++old)
        m_folder.Write("work/log/unit.log." + std::to_string(old), "");
    m_folder.MakeFolder("work/log/unit.log.5/obstacle");
    Fill();
    Append("text");
    EXPECT_EQ("text", Logged().back());
}

TEST_F(LogFile, APieceOfARecordThatAKilledProcessLeftIsRemoved)
{
    // As the system leaves it: the write ended with a page.
    std::string content = "2026-11-20 12:34:56 [1] Message: whole\n2026-11-20 12:34:56 [1] Message: ";
    content.append(4096 - content.size(), 'x');
    m_folder.Write("work/log/unit.log", content);
    Append("next");
    EXPECT_EQ((Texts{"whole", "next"}), Logged());
}

TEST_F(LogFile, WhatSomebodyElseLeftWithoutAnEndBecomesALine)
{
    std::string page = "2026-11-20 12:34:56 [1] Message: whole\n";
    page.append(4096 - page.size(), 'x');
    const std::string contents[] = {"text", "2026-11-20 12:34:56 [1] Message: no end", page, std::string(70000, 'x')};
    for (const std::string& content : contents) {
        m_folder.Write("work/log/unit.log", content);
        Append("next");
        const std::string logged = ReadFile(Log());
        EXPECT_EQ(content + "\n", logged.substr(0, content.size() + 1)) << content.size();
        EXPECT_EQ("next", Logged().back());
    }
}

TEST_F(LogFile, AProcessThatWasStoppedWhileItWroteDoesNotStopTheOthersForLong)
{
    Append("first");
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t holder = fork();
    if (holder == 0) {
        const int file = open(Log().c_str(), O_RDWR | O_CLOEXEC);
        struct flock whole = {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        const char told = fcntl(file, F_SETLK, &whole) == 0 ? 'y' : 'n';
        _exit(write(ready[1], &told, 1) == 1 ? pause() : 1);
    }
    char told = 'n';
    ASSERT_EQ(1, read(ready[0], &told, 1));
    ASSERT_EQ('y', told);
    Append("second");
    EXPECT_EQ((Texts{"first", "second"}), Logged());
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

TEST_F(LogFile, OnceTheObstacleIsGoneRotationIsBackAtItsSize)
{
    for (int old = 1; old <= 4; ++old)
        m_folder.Write("work/log/unit.log." + std::to_string(old), "");
    m_folder.MakeFolder("work/log/unit.log.5");
    Fill();
    Append("cannot rotate");
    ASSERT_EQ(0, rmdir(Log(5).c_str()));

    SetSize(2 * kLimit);
    Append("rotates");
    ASSERT_EQ(2 * kLimit, SizeOf(Log(1)));
    Fill();
    Append("rotates again");
    EXPECT_EQ(kLimit, SizeOf(Log(1)));
    EXPECT_EQ(Texts{"rotates again"}, Logged());
}

// Appends `count` numbered records of about a kilobyte.
void AppendMany(const std::string& who, int count)
{
    const std::string padding(1000, '.');
    for (int i = 0; i < count; ++i)
        Append(who + " " + std::to_string(i) + " " + padding);
}

// Expects the records 0 to count-1 of each writer, complete and in the order in which they were written.
void ExpectAll(const Texts& texts, int writers, int count)
{
    std::map<std::string, int> next;
    for (const std::string& text : texts) {
        const std::size_t blank = text.find(' ');
        ASSERT_NE(std::string::npos, blank) << text;
        const std::string who = text.substr(0, blank);
        ASSERT_EQ(who + " " + std::to_string(next[who]) + " " + std::string(1000, '.'), text);
        ++next[who];
    }
    EXPECT_EQ(static_cast<std::size_t>(writers), next.size());
    for (const auto& [who, number] : next)
        EXPECT_EQ(count, number) << who;
}

TEST_F(LogFile, LinesOfFourThreadsNeverMix)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([i] { AppendMany("thread" + std::to_string(i), 2000); });
    for (std::thread& thread : threads)
        thread.join();
    ExpectAll(Logged(), 4, 2000);
}

TEST_F(LogFile, TwoProcessesLoseNoRecordThroughRotations)
{
    const int count = 12000; // of 1 KB each: two rotations
    std::vector<pid_t> children;
    for (int i = 0; i < 2; ++i) {
        const pid_t child = fork();
        ASSERT_LE(0, child);
        if (child == 0) {
            AppendMany("process" + std::to_string(i), count);
            _exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }

    ASSERT_TRUE(Exists(Log(2)));
    EXPECT_FALSE(Exists(Log(3)));
    // A process that still holds the file that the other one has moved may add a record behind the newest of it, so
    // the order counts for each process and file, and over all files every record is there once.
    std::map<std::string, int> seen;
    for (int old = 2; old >= 0; --old) {
        for (const std::string& text : Logged(old))
            ++seen[text];
    }
    EXPECT_EQ(2u * count, seen.size());
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](const auto& entry) { return entry.second == 1; }));
    EXPECT_EQ(0u, seen.count("")) << "a line that is no record";
}

// What a process may do without looking at the file again, when it is alone with it and busy.

// Appends records until that is so. Returns how many.
int AppendAlone()
{
    const int count = 2000;
    for (int i = 0; i < count; ++i)
        Append("alone " + std::to_string(i));
    return count;
}

// The records of the log and its old files, the oldest first.
Texts AllLogged(const std::string& log)
{
    Texts all;
    for (int old = CLogFile::s_OldFiles; old >= 0; --old) {
        const Texts texts = TextsOf(ReadFile(log + (old == 0 ? std::string() : "." + std::to_string(old))));
        all.insert(all.end(), texts.begin(), texts.end());
    }
    return all;
}

void WaitForTheNextLook()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

TEST_F(LogFile, RecordsOfAProcessThatIsAloneAreAllThereThroughRotations)
{
    const int alone = AppendAlone();
    const int count = 25000; // of 1 KB each: two rotations
    AppendMany("then", count);
    Texts all = AllLogged(Log());
    ASSERT_EQ(static_cast<std::size_t>(alone + count), all.size());
    ExpectAll(Texts(all.begin() + alone, all.end()), 1, count);
    EXPECT_LT(kLimit - 2000, SizeOf(Log(1)));
    EXPECT_GT(kLimit + 2000, SizeOf(Log(1)));
}

TEST_F(LogFile, AProcessThatWritesAFewRecordsLooksEachTime)
{
    for (int i = 0; i < 50; ++i)
        Append("before");
    ASSERT_EQ(0, unlink(Log().c_str()));
    Append("after");
    EXPECT_EQ(Texts{"after"}, Logged());
}

TEST_F(LogFile, AProcessThatWasAloneNoticesThatTheFileIsGone)
{
    AppendAlone();
    ASSERT_EQ(0, unlink(Log().c_str()));
    WaitForTheNextLook();
    Append("after");
    EXPECT_EQ(Texts{"after"}, Logged());
}

TEST_F(LogFile, AProcessThatWasAloneNoticesThatTheFileIsFull)
{
    AppendAlone();
    Fill();
    WaitForTheNextLook();
    Append("after");
    EXPECT_EQ(kLimit, SizeOf(Log(1)));
    EXPECT_EQ(Texts{"after"}, Logged());
}

TEST_F(LogFile, AProcessThatWasAloneFollowsTheSettingsFromTheNextRecord)
{
    AppendAlone();
    m_root->Set("app.name", "other");
    Append("after");
    EXPECT_EQ(Texts{"after"}, TextsOf(ReadFile(Work() + "/log/other.log")));
}

TEST_F(LogFile, AProcessThatWasAloneRemovesThePieceThatAnotherOneLeft)
{
    AppendAlone();
    const std::size_t before = ReadFile(Log()).size();
    std::string content = "2026-11-20 12:34:56 [1] Message: ";
    content.append(4096 - (before + content.size()) % 4096, 'x');
    const int file = open(Log().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_EQ(static_cast<ssize_t>(content.size()), write(file, content.data(), content.size()));
    close(file);
    WaitForTheNextLook();
    Append("after");
    const std::string logged = ReadFile(Log());
    EXPECT_EQ(std::string::npos, logged.find("xxx"));
    EXPECT_EQ("after", TextsOf(logged).back());
}

TEST_F(LogFile, AnotherProcessMayJoinOneThatIsAlone)
{
    const int alone = AppendAlone();
    const pid_t child = fork();
    if (child == 0) {
        AppendMany("child", 2000);
        _exit(0);
    }
    AppendMany("parent", 2000);
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);

    std::map<std::string, int> seen;
    for (const std::string& text : AllLogged(Log()))
        ++seen[text];
    EXPECT_EQ(static_cast<std::size_t>(alone + 4000), seen.size());
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](const auto& entry) { return entry.second == 1; }));
    EXPECT_EQ(0u, seen.count("")) << "a line that is no record";
}

TEST_F(LogFile, ThreadsOfAProcessThatIsAloneLoseAndMixNothing)
{
    const int alone = AppendAlone();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([i] { AppendMany("thread" + std::to_string(i), 2000); });
    for (std::thread& thread : threads)
        thread.join();
    Texts all = AllLogged(Log());
    ASSERT_EQ(static_cast<std::size_t>(alone + 8000), all.size());
    ExpectAll(Texts(all.begin() + alone, all.end()), 4, 2000);
}

// A terminal in place of standard error. Only for processes that have logged nothing yet.
class CTerminal
{
public:
    CTerminal()
    {
        int slave = -1;
        if (openpty(&m_master, &slave, nullptr, nullptr, nullptr) == 0)
            dup2(slave, STDERR_FILENO);
    }

    // What is shown, up to and with `last`; whatever there is when it does not come.
    std::string ReadUpTo(const std::string& last) const
    {
        std::string shown;
        char buffer[4096];
        struct pollfd ready
        {
            m_master, POLLIN, 0
        };
        while (shown.find(last) == std::string::npos && poll(&ready, 1, 5000) > 0) {
            const ssize_t got = read(m_master, buffer, sizeof buffer);
            if (got <= 0)
                break;
            shown.append(buffer, static_cast<std::size_t>(got));
        }
        return shown;
    }

private:
    int m_master = -1;
};

int CountOf(const std::string& what, const std::string& text)
{
    int count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

TEST_F(LogFile, OnATerminalRecordsAreShownThereAsWell)
{
    EXPECT_EXIT(
        {
            const CTerminal terminal;
            Append("one");
            Append("end");
            const std::string shown = terminal.ReadUpTo("end");
            const bool isRight = CountOf("] Message: one", shown) == 1 && Logged() == (Texts{"one", "end"});
            m_folder.Remove();
            _exit(isRight ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(LogFile, OnATerminalAQuietThreadIsNotShown)
{
    EXPECT_EXIT(
        {
            const CTerminal terminal;
            CLogFile::QuietTerminal(true);
            CLogFile::QuietTerminal(true);
            Append("quiet");
            std::thread([] { Append("other"); }).join();
            CLogFile::QuietTerminal(false);
            Append("nested");
            CLogFile::QuietTerminal(false);
            Append("end");
            const std::string shown = terminal.ReadUpTo("end");
            const bool isRight = CountOf("quiet", shown) == 0 && CountOf("nested", shown) == 0 &&
                                 CountOf("other", shown) == 1 && Logged() == (Texts{"quiet", "other", "nested", "end"});
            m_folder.Remove();
            _exit(isRight ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(LogFile, OnATerminalARecordWithoutAFileIsShownOnce)
{
    EXPECT_EXIT(
        {
            m_root->Remove("app.path.work");
            const CTerminal terminal;
            Append("one");
            Append("end");
            const bool isRight = CountOf("one", terminal.ReadUpTo("end")) == 1;
            m_folder.Remove();
            _exit(isRight ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
