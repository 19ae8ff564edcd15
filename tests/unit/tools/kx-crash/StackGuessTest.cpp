#include "StackGuess.h"

#include <string>

#include <gtest/gtest.h>

namespace {

const std::uint64_t kStack = 0x7f0000000000;
const std::uint64_t kCode = 0x400000;

std::string Words(std::initializer_list<std::uint64_t> words)
{
    std::string bytes;
    for (const std::uint64_t word : words)
        bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
    return bytes;
}

// The addresses that are guessed when the thread's stack holds these bytes.
std::vector<std::uint64_t> Guessed(const std::string& stack, std::uint64_t stackPointer = kStack)
{
    CrashDump dump;
    dump.modules.push_back({kCode, 0x1000, "/bin/app", {}});
    dump.memory.push_back({kStack, stack});
    DumpedThread thread = {};
    thread.context.rsp = stackPointer;
    std::vector<std::uint64_t> addresses;
    for (const StackFrame& frame : GuessFrames(dump, thread))
        addresses.push_back(frame.address);
    return addresses;
}

using Addresses = std::vector<std::uint64_t>;

TEST(StackGuess, TakesWordsThatLieInAModule)
{
    EXPECT_EQ((Addresses{kCode, kCode + 0xFFF}), Guessed(Words({1, kCode, kCode - 1, kCode + 0xFFF, kCode + 0x1000})));
}

TEST(StackGuess, EmptyStackGivesNothing)
{
    EXPECT_EQ(Addresses{}, Guessed(""));
    EXPECT_EQ(Addresses{}, Guessed(Words({kCode}), 0x10));
}

TEST(StackGuess, BeginsAtTheStackPointerAligned)
{
    EXPECT_EQ((Addresses{kCode + 2}), Guessed(Words({kCode + 1, kCode + 2}), kStack + 8));
    EXPECT_EQ((Addresses{kCode + 2}), Guessed(Words({kCode + 1, kCode + 2}), kStack + 12));
}

TEST(StackGuess, StopsAfterSixtyFour)
{
    std::string stack;
    for (int count = 0; count < 100; ++count)
        stack += Words({kCode});
    EXPECT_EQ(64u, Guessed(stack).size());
}

TEST(StackGuess, LooksNoFurtherThanSixtyFourKilobytes)
{
    EXPECT_EQ(1u, Guessed(std::string(65528, '\0') + Words({kCode})).size());
    EXPECT_EQ(0u, Guessed(std::string(65536, '\0') + Words({kCode})).size());
}

} // namespace
