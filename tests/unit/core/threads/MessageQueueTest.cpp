#include "threads/MessageQueue.h"

#include <chrono>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <VelCore/Runnable.h>

using VelCore::CMessageQueue;
using VelCore::CRunnable;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

const Clock::time_point kNow = Clock::time_point::min();
const Clock::time_point kNever = Clock::time_point::max();

class CIdleRunnable : public CRunnable
{
public:
    CIdleRunnable() : CRunnable(false, 0, false) {}

protected:
    int OnRun() override { return 0; }
};

std::string PopNow(CMessageQueue& queue)
{
    std::string message;
    return queue.Pop(message, kNow, nullptr) ? message : "(nothing)";
}

TEST(MessageQueue, GivesMessagesInTheirOrder)
{
    CMessageQueue queue;
    for (const char* message : {"a", "", "c"})
        EXPECT_TRUE(queue.Push(message, kNow, nullptr));
    EXPECT_EQ("a", PopNow(queue));
    EXPECT_EQ("", PopNow(queue));
    EXPECT_EQ("c", PopNow(queue));
    EXPECT_EQ("(nothing)", PopNow(queue));
}

TEST(MessageQueue, TakesNoMoreThanItsLimit)
{
    CMessageQueue queue;
    queue.SetLimit(2);
    EXPECT_TRUE(queue.Push("a", kNow, nullptr));
    EXPECT_TRUE(queue.Push("b", kNow, nullptr));
    EXPECT_FALSE(queue.Push("c", kNow, nullptr));
    EXPECT_EQ("a", PopNow(queue));
    EXPECT_TRUE(queue.Push("d", kNow, nullptr));
    queue.SetLimit(1);
    EXPECT_FALSE(queue.Push("e", kNow, nullptr));
    EXPECT_EQ("b", PopNow(queue));
    EXPECT_EQ("d", PopNow(queue));
}

TEST(MessageQueue, TakesAThousandWhenNobodySetsALimit)
{
    CMessageQueue queue;
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(queue.Push("x", kNow, nullptr)) << i;
    EXPECT_FALSE(queue.Push("x", kNow, nullptr));
}

TEST(MessageQueue, WaitsUntilTheDeadline)
{
    CMessageQueue queue;
    queue.SetLimit(1);
    std::string message;
    const auto start = Clock::now();
    EXPECT_FALSE(queue.Pop(message, start + 20ms, nullptr));
    EXPECT_TRUE(queue.Push("a", kNow, nullptr));
    EXPECT_FALSE(queue.Push("b", start + 40ms, nullptr));
    EXPECT_LE(start + 40ms, Clock::now());
}

TEST(MessageQueue, AMessageEndsAWait)
{
    CMessageQueue queue;
    auto popped = std::async(std::launch::async, [&] {
        std::string message;
        return queue.Pop(message, kNever, nullptr) ? message : "(nothing)";
    });
    EXPECT_TRUE(queue.Push("a", kNow, nullptr));
    EXPECT_EQ("a", popped.get());
}

TEST(MessageQueue, RoomEndsAWaitAndSoDoesAHigherLimit)
{
    CMessageQueue queue;
    queue.SetLimit(1);
    EXPECT_TRUE(queue.Push("a", kNow, nullptr));
    auto pushed = std::async(std::launch::async, [&] { return queue.Push("b", kNever, nullptr); });
    EXPECT_EQ("a", PopNow(queue));
    EXPECT_TRUE(pushed.get());
    pushed = std::async(std::launch::async, [&] { return queue.Push("c", kNever, nullptr); });
    queue.SetLimit(2);
    EXPECT_TRUE(pushed.get());
}

TEST(MessageQueue, AnExitRequestEndsTheWaitsOfItsRunnable)
{
    CMessageQueue queue;
    queue.SetLimit(1);
    CMessageQueue full;
    full.SetLimit(1);
    EXPECT_TRUE(full.Push("a", kNow, nullptr));
    CIdleRunnable runnable;
    auto popped = std::async(std::launch::async, [&] {
        std::string message;
        return queue.Pop(message, kNever, &runnable);
    });
    auto pushed = std::async(std::launch::async, [&] { return full.Push("b", kNever, &runnable); });
    runnable.requestExit();
    EXPECT_FALSE(popped.get());
    EXPECT_FALSE(pushed.get());
}

TEST(MessageQueue, WhoWasAskedToExitCanStillTakeAndGiveButNotWait)
{
    CMessageQueue queue;
    queue.SetLimit(1);
    CIdleRunnable runnable;
    runnable.requestExit();
    std::string message;
    EXPECT_TRUE(queue.Push("a", kNever, &runnable));
    EXPECT_FALSE(queue.Push("b", kNever, &runnable));
    EXPECT_TRUE(queue.Pop(message, kNever, &runnable));
    EXPECT_EQ("a", message);
    EXPECT_FALSE(queue.Pop(message, kNever, &runnable));
}

TEST(MessageQueue, EveryMessageOfManySendersComesToOneOfManyReceivers)
{
    const int kEach = 2000;
    CMessageQueue queue;
    queue.SetLimit(10);
    std::vector<std::thread> senders;
    std::vector<std::future<std::vector<std::string>>> receivers;
    for (int sender = 0; sender < 3; ++sender) {
        senders.emplace_back([&queue, sender] {
            for (int i = 0; i < kEach; ++i)
                EXPECT_TRUE(queue.Push(std::to_string(sender * kEach + i), kNever, nullptr));
        });
        receivers.push_back(std::async(std::launch::async, [&queue] {
            std::vector<std::string> received;
            std::string message;
            while (queue.Pop(message, kNever, nullptr) && message != "end")
                received.push_back(message);
            return received;
        }));
    }
    for (std::thread& sender : senders)
        sender.join();
    for (int receiver = 0; receiver < 3; ++receiver)
        EXPECT_TRUE(queue.Push("end", kNever, nullptr));
    std::multiset<std::string> all;
    for (auto& receiver : receivers) {
        for (const std::string& message : receiver.get())
            all.insert(message);
    }
    EXPECT_EQ(3u * kEach, all.size());
    EXPECT_EQ(all.size(), std::set<std::string>(all.begin(), all.end()).size());
}

TEST(MessageQueue, ANameStandsForOneQueueAsLongAsSomebodyHoldsIt)
{
    std::weak_ptr<CMessageQueue> first;
    {
        const auto one = CMessageQueue::Open("MessageQueueTest.held");
        first = one;
        EXPECT_EQ(one, CMessageQueue::Open("MessageQueueTest.held"));
        EXPECT_NE(one, CMessageQueue::Open("MessageQueueTest.other"));
    }
    CMessageQueue::Open("MessageQueueTest.third");
    EXPECT_TRUE(first.expired());
}

TEST(MessageQueue, ANameStandsForItsQueueAsLongAsSomethingIsInIt)
{
    EXPECT_TRUE(CMessageQueue::Open("MessageQueueTest.filled")->Push("a", kNow, nullptr));
    CMessageQueue::Open("MessageQueueTest.other");
    EXPECT_EQ("a", PopNow(*CMessageQueue::Open("MessageQueueTest.filled")));
}

} // namespace
