#include "threads/ManyReadersLock.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using VelCore::CManyReadersLock;

namespace {

const int kThreads = 12; // more than there are slots

void OnThreads(int count, const std::function<void()>& work)
{
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        threads.emplace_back(work);
    for (std::thread& thread : threads)
        thread.join();
}

void Await(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_TRUE(condition());
}

TEST(ManyReadersLock, ReadersMeet)
{
    CManyReadersLock lock;
    std::atomic<int> inside{0};
    OnThreads(kThreads, [&] {
        const std::shared_lock reading(lock);
        ++inside;
        Await([&] { return inside == kThreads; });
    });
}

TEST(ManyReadersLock, AWriterIsAlone)
{
    CManyReadersLock lock;
    int value = 0; // no atomic one: the lock has to do
    const int rounds = 2000;
    OnThreads(kThreads, [&] {
        for (int i = 0; i < rounds; ++i) {
            const std::unique_lock writing(lock);
            ++value;
        }
    });
    EXPECT_EQ(kThreads * rounds, value);
}

TEST(ManyReadersLock, AReaderSeesWholeWritesInTheirOrder)
{
    CManyReadersLock lock;
    int first = 0;
    int second = 0;
    std::atomic<bool> stop{false};
    std::thread readers([&] {
        OnThreads(kThreads, [&] {
            int seen = 0;
            do {
                const std::shared_lock reading(lock);
                EXPECT_EQ(first, second);
                EXPECT_LE(seen, first);
                seen = first;
            } while (!stop);
        });
    });
    OnThreads(2, [&] {
        for (int i = 0; i < 2000; ++i) {
            const std::unique_lock writing(lock);
            ++first;
            ++second;
        }
    });
    stop = true;
    readers.join();
    EXPECT_EQ(4000, first);
}

TEST(ManyReadersLock, AWriterWaitsForAReader)
{
    CManyReadersLock lock;
    std::atomic<bool> isWritten{false};
    std::shared_lock reading(lock);
    std::thread writer([&] {
        const std::unique_lock writing(lock);
        isWritten = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // long enough for a writer that does not wait
    EXPECT_FALSE(isWritten);
    reading.unlock();
    writer.join();
    EXPECT_TRUE(isWritten);
}

TEST(ManyReadersLock, AReaderWaitsForAWriter)
{
    CManyReadersLock lock;
    std::atomic<bool> isRead{false};
    std::unique_lock writing(lock);
    std::thread reader([&] {
        const std::shared_lock reading(lock);
        isRead = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // long enough for a reader that does not wait
    EXPECT_FALSE(isRead);
    writing.unlock();
    reader.join();
    EXPECT_TRUE(isRead);
}

// Readers that come while a writer waits let it pass.
TEST(ManyReadersLock, AWriterIsNotKeptOutByReadersThatFollowOneAnother)
{
    CManyReadersLock lock;
    std::atomic<bool> isWritten{false};
    std::thread readers([&] {
        OnThreads(kThreads, [&] {
            while (!isWritten) {
                const std::shared_lock reading(lock);
                std::this_thread::yield();
            }
        });
    });
    {
        const std::unique_lock writing(lock);
        isWritten = true;
    }
    readers.join();
}

} // namespace
