#include "supervision/RestartPolicy.h"

#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::int64_t kNow = 1763700000;

CRestartPolicy PolicyAfter(int starts, std::int64_t when)
{
    CRestartPolicy policy;
    for (int start = 0; start < starts; ++start)
        policy.RecordStart(when);
    return policy;
}

TEST(RestartPolicy, EachRecentStartDoublesTheDelay)
{
    const int delaysMs[] = {0, 1000, 2000, 4000, 8000, 16000, 32000, 64000};
    for (int starts = 0; starts < 8; ++starts) {
        const CRestartPolicy::Verdict verdict = PolicyAfter(starts, kNow).Judge(kNow);
        EXPECT_TRUE(verdict.allowed) << starts;
        EXPECT_EQ(starts, verdict.recentStarts);
        EXPECT_EQ(delaysMs[starts], verdict.delayMs) << starts;
    }
}

TEST(RestartPolicy, TheNinthStartWithin512SecondsIsRefused)
{
    const CRestartPolicy::Verdict verdict = PolicyAfter(8, kNow).Judge(kNow + 511);
    EXPECT_FALSE(verdict.allowed);
    EXPECT_EQ(8, verdict.recentStarts);
}

TEST(RestartPolicy, StartExactly512SecondsAgoNoLongerCounts)
{
    EXPECT_EQ(1, PolicyAfter(1, kNow - 511).Judge(kNow).recentStarts);
    EXPECT_EQ(0, PolicyAfter(1, kNow - 512).Judge(kNow).recentStarts);
    EXPECT_EQ(0, PolicyAfter(8, kNow - 512).Judge(kNow).recentStarts);
}

TEST(RestartPolicy, OnlyTheLastEightStartsAreRemembered)
{
    CRestartPolicy policy = PolicyAfter(8, kNow);
    for (int start = 1; start <= 8; ++start) {
        policy.RecordStart(kNow + 1000);
        EXPECT_EQ(start, policy.Judge(kNow + 1000).recentStarts);
    }
    policy.RecordStart(kNow + 1000);
    EXPECT_EQ(8, policy.Judge(kNow + 1000).recentStarts);
}

TEST(RestartPolicy, JudgingRecordsNothing)
{
    CRestartPolicy policy = PolicyAfter(2, kNow);
    policy.Judge(kNow);
    EXPECT_EQ(2, policy.Judge(kNow).recentStarts);
}

TEST(RestartPolicy, StartsInTheFutureCount)
{
    EXPECT_EQ(3, PolicyAfter(3, kNow + 5000).Judge(kNow).recentStarts) << "the clock was set back";
}

TEST(RestartPolicy, StartsThatWereNeverRecordedDoNotCountWhateverTheClockSays)
{
    for (const std::int64_t now : {std::int64_t{0}, std::int64_t{511}, std::int64_t{-1000000}})
        EXPECT_EQ(0, CRestartPolicy().Judge(now).recentStarts) << now;
    EXPECT_EQ(1, PolicyAfter(1, 0).Judge(100).recentStarts) << "a start in the first second of the epoch is one";
}

TEST(RestartPolicy, TheSameAnswersAfter2038)
{
    for (const std::int64_t now :
         {std::int64_t{2147483647}, std::int64_t{2147483648}, std::int64_t{4294967296 + 100}}) {
        EXPECT_EQ(4, PolicyAfter(4, now - 511).Judge(now).recentStarts) << now;
        EXPECT_EQ(0, PolicyAfter(4, now - 512).Judge(now).recentStarts) << now;
    }
}

// A worker that dies at once: the start that is recorded is the moment of the judgement, so the delays age it.
TEST(RestartPolicy, AWorkerThatDiesAtOnceIsStartedEightTimesInAboutTwoMinutes)
{
    CRestartPolicy policy;
    std::vector<std::int64_t> delays;
    std::int64_t now = kNow;
    for (;;) {
        const CRestartPolicy::Verdict verdict = policy.Judge(now);
        if (!verdict.allowed)
            break;
        policy.RecordStart(now);
        delays.push_back(verdict.delayMs);
        now += verdict.delayMs / 1000;
    }
    EXPECT_EQ((std::vector<std::int64_t>{0, 1000, 2000, 4000, 8000, 16000, 32000, 64000}), delays);
    EXPECT_EQ(kNow + 127, now);
}

TEST(RestartPolicy, AWorkerThatLivesLongerThanTheWindowIsRestartedForEver)
{
    CRestartPolicy policy;
    for (std::int64_t now = kNow; now < kNow + 100 * 513; now += 513) {
        EXPECT_EQ(0, policy.Judge(now).delayMs);
        policy.RecordStart(now);
    }
}

} // namespace
