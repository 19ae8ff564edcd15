#include "threads/OfThread.h"

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

using VelCore::OfThread;

namespace {

std::atomic<int> g_made{0};
std::atomic<int> g_ended{0};

struct Kept
{
    Kept() { ++g_made; }
    ~Kept()
    {
        ++g_ended;
        if (atEnd)
            atEnd();
    }

    std::string text = "a text that is too long to stand in the object itself";
    void (*atEnd)() = nullptr;
};

// Its end asks for the thread's object, and uses it.
class CLatecomer
{
public:
    ~CLatecomer()
    {
        if (m_seen)
            *m_seen = OfThread<Kept>().text;
    }

    void TellAtEnd(std::string& seen) { m_seen = &seen; }

private:
    std::string* m_seen = nullptr;
};

class OfThreadTest : public testing::Test
{
protected:
    void SetUp() override
    {
        g_made = 0;
        g_ended = 0;
    }
};

TEST_F(OfThreadTest, AThreadKeepsItsObject)
{
    std::thread([] {
        Kept& first = OfThread<Kept>();
        EXPECT_EQ(&first, &OfThread<Kept>());
        EXPECT_EQ(1, g_made);
        EXPECT_EQ(0, g_ended);
    }).join();
    EXPECT_EQ(1, g_made);
    EXPECT_EQ(1, g_ended);
}

TEST_F(OfThreadTest, EachThreadHasItsOwn)
{
    std::thread([] {
        const Kept* const outer = &OfThread<Kept>();
        std::thread([outer] { EXPECT_NE(outer, &OfThread<Kept>()); }).join();
        EXPECT_EQ(1, g_ended);
    }).join();
    EXPECT_EQ(2, g_made);
    EXPECT_EQ(2, g_ended);
}

TEST_F(OfThreadTest, ItIsThereForWhateverEndsWithTheThread)
{
    std::string seen;
    std::thread([&seen] {
        thread_local CLatecomer t_latecomer; // made first, so it ends last
        t_latecomer.TellAtEnd(seen);
        OfThread<Kept>().text = "a text that is as long, and stands in the object since then";
    }).join();
    EXPECT_EQ("a text that is as long, and stands in the object since then", seen);
    EXPECT_EQ(1, g_made);
    EXPECT_EQ(1, g_ended);
}

TEST_F(OfThreadTest, WhoComesEvenLaterGetsAnother)
{
    std::thread([] { OfThread<Kept>().atEnd = [] { OfThread<Kept>().text = "changed"; }; }).join();
    EXPECT_EQ(2, g_made);
    EXPECT_EQ(2, g_ended);
}

} // namespace
