#include "trace/LogFile.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/RootDomain.h"
#include "support/TempFolder.h"

namespace {

const int kWriters = 4;

// A million lines in all, less where VEL_LONG_LOOP asks for it, as in the builds with sanitizers.
int LinesPerWriter()
{
    const char* rounds = std::getenv("VEL_LONG_LOOP");
    return (rounds ? std::atoi(rounds) : 2000) * 125;
}

// What one writer has done, in memory that outlives it.
struct Progress
{
    std::atomic<int> started;      // the line that is being written
    std::atomic<char> isWritten[]; // by line: the call has returned
};

class CSharedProgress
{
public:
    explicit CSharedProgress(int lines) : m_size(sizeof(Progress) + static_cast<std::size_t>(lines) + 1)
    {
        void* memory = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        m_progress = memory == MAP_FAILED ? nullptr : static_cast<Progress*>(memory);
    }
    ~CSharedProgress() { munmap(m_progress, m_size); }
    CSharedProgress(const CSharedProgress&) = delete;
    CSharedProgress& operator=(const CSharedProgress&) = delete;

    Progress* operator->() const { return m_progress; }

private:
    std::size_t m_size;
    Progress* m_progress;
};

std::string LineText(int writer, int line)
{
    return std::to_string(writer) + "-" + std::to_string(line);
}

// A process that writes on from where the one before it was killed; its last line may or may not be in the file.
pid_t StartWriter(int writer, const CSharedProgress& progress, int lines)
{
    const pid_t child = fork();
    if (child != 0)
        return child;
    for (int line = progress->started + 1; line <= lines; ++line) {
        progress->started = line;
        VelCore::CLogFile::Get().Append(std::time(nullptr), "Message", LineText(writer, line));
        progress->isWritten[line] = 1;
    }
    _exit(0);
}

// Kills and replaces writers at random until all have written all their lines. Returns how many were killed.
int RunWriters(const std::vector<std::unique_ptr<CSharedProgress>>& progress, int lines)
{
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer)
        writers.push_back(StartWriter(writer, *progress[static_cast<std::size_t>(writer)], lines));

    std::minstd_rand random(std::random_device{}());
    int killed = 0;
    int running = kWriters;
    while (running > 0) {
        usleep(static_cast<useconds_t>(random() % 20000));
        const std::size_t writer = random() % kWriters;
        if (writers[writer] > 0)
            kill(writers[writer], SIGKILL);
        int status = 0;
        for (pid_t ended = waitpid(-1, &status, WNOHANG); ended > 0; ended = waitpid(-1, &status, WNOHANG)) {
            for (std::size_t which = 0; which < writers.size(); ++which) {
                if (writers[which] != ended)
                    continue;
                killed += WIFSIGNALED(status) ? 1 : 0;
                const bool hasMore = (*progress[which])->started < lines;
                writers[which] = hasMore ? StartWriter(static_cast<int>(which), *progress[which], lines) : 0;
                running -= hasMore ? 0 : 1;
            }
        }
    }
    return killed;
}

TEST(LogFileStress, FourWritersLoseAndMixNothingThroughRotationsAndKills)
{
    const VelTest::CTempFolder folder;
    const auto root = VelTest::NewRootDomain();
    root->Set("app.path.work", folder.Path());
    root->Set("app.name", "stress");
    const int lines = LinesPerWriter();
    std::vector<std::unique_ptr<CSharedProgress>> progress;
    for (int writer = 0; writer < kWriters; ++writer)
        progress.push_back(std::make_unique<CSharedProgress>(lines));

    const int killed = RunWriters(progress, lines);

    std::vector<std::vector<int>> seen(kWriters, std::vector<int>(static_cast<std::size_t>(lines) + 1));
    int broken = 0;
    int files = 0;
    for (int old = 5; old >= 0; --old) {
        const std::string path = folder / ("log/stress.log" + (old > 0 ? "." + std::to_string(old) : std::string()));
        files += VelTest::Exists(path) ? 1 : 0;
        for (const std::string& record : VelTest::Lines(VelTest::ReadFile(path))) {
            int writer = -1;
            int line = -1;
            int used = 0;
            const int fields =
                std::sscanf(record.c_str(), "%*d-%*d-%*d %*d:%*d:%*d [%*d] Message: %d-%d%n", &writer, &line, &used);
            const bool isWhole = fields == 2 && static_cast<std::size_t>(used) == record.size();
            if (isWhole && writer >= 0 && writer < kWriters && line > 0 && line <= lines)
                ++seen[static_cast<std::size_t>(writer)][static_cast<std::size_t>(line)];
            else
                ++broken;
        }
    }

    int lost = 0;
    int doubled = 0;
    for (std::size_t writer = 0; writer < kWriters; ++writer) {
        for (std::size_t line = 1; line <= static_cast<std::size_t>(lines); ++line) {
            lost += (*progress[writer])->isWritten[line].load() != 0 && seen[writer][line] == 0 ? 1 : 0;
            doubled += seen[writer][line] > 1 ? 1 : 0;
        }
    }
    EXPECT_EQ(0, lost);
    EXPECT_EQ(0, doubled);
    EXPECT_EQ(0, broken);
    EXPECT_GT(killed, 0);
    std::printf("%d lines in %d files, %d writers killed\n", kWriters * lines, files, killed);
}

} // namespace
