#include "crash/AlternateStack.h"

#include <csignal>
#include <thread>

#include <gtest/gtest.h>

using VelCore::CAlternateStack;

namespace {

stack_t Present()
{
    stack_t stack = {};
    sigaltstack(nullptr, &stack);
    return stack;
}

// A sanitizer gives every thread such a stack already.
void WithoutAStack(void (*test)())
{
    std::thread([test] {
        stack_t none = {};
        none.ss_flags = SS_DISABLE;
        const stack_t before = Present();
        sigaltstack(&none, nullptr);
        test();
        sigaltstack(&before, nullptr);
    }).join();
}

TEST(AlternateStack, ThreadHasItWhileTheObjectLives)
{
    WithoutAStack([] {
        {
            const CAlternateStack stack;
            EXPECT_EQ(0, Present().ss_flags & SS_DISABLE);
            EXPECT_LE(std::size_t{65536}, Present().ss_size);
        }
        EXPECT_NE(0, Present().ss_flags & SS_DISABLE);
    });
}

TEST(AlternateStack, ThreadThatHasOneKeepsIt)
{
    WithoutAStack([] {
        const CAlternateStack outer;
        const void* const before = Present().ss_sp;
        {
            const CAlternateStack inner;
            EXPECT_EQ(before, Present().ss_sp);
        }
        EXPECT_EQ(before, Present().ss_sp);
    });
}

} // namespace
