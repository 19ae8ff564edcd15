#include "crash/StackExtent.h"

#include <memory>

#include <gtest/gtest.h>

using VelCore::FindStack;
using VelCore::SnapshotMapping;
using VelCore::SnapshotMappings;
using VelCore::StackExtent;

namespace {

const std::uint64_t kStart = 0x7f0000000000;
const std::uint64_t kSmallEnd = kStart + 0x21000;
const std::uint64_t kLargeEnd = kStart + 0x800000; // 8 MiB

// A guard page below one stack, and unrelated memory far below.
std::unique_ptr<SnapshotMappings> Memory(std::uint64_t end)
{
    auto mappings = std::make_unique<SnapshotMappings>();
    *mappings->Add() = {0x10000, 0x20000, 0, true, true, false, ""};
    *mappings->Add() = {kStart - 0x1000, kStart, 0, false, false, false, ""};
    *mappings->Add() = {kStart, end, 0, true, true, false, "[stack]"};
    return mappings;
}

TEST(StackExtent, BeginsBelowTheStackPointerAndEndsWithTheMapping)
{
    const StackExtent extent = FindStack(*Memory(kSmallEnd), kStart + 0x1000);

    EXPECT_EQ(kStart + 0x1000 - 128, extent.innermost.start);
    EXPECT_EQ(kSmallEnd, extent.innermost.end);
    EXPECT_TRUE(extent.outermost.IsEmpty());
}

TEST(StackExtent, NeverLeavesTheMapping)
{
    EXPECT_EQ(kStart, FindStack(*Memory(kSmallEnd), kStart + 64).innermost.start);
    EXPECT_EQ(kStart, FindStack(*Memory(kSmallEnd), kStart).innermost.start);
}

TEST(StackExtent, PointerInTheGuardPageFindsTheStackAbove)
{
    EXPECT_EQ(kStart, FindStack(*Memory(kSmallEnd), kStart - 8).innermost.start);
    EXPECT_EQ(kStart, FindStack(*Memory(kSmallEnd), kStart - 0x100000).innermost.start);
}

TEST(StackExtent, PointerFurtherBelowFindsNothing)
{
    EXPECT_TRUE(FindStack(*Memory(kSmallEnd), kStart - 0x100001).innermost.IsEmpty());
}

TEST(StackExtent, PointerThatPointsNowhereFindsNothing)
{
    for (const std::uint64_t pointer : {std::uint64_t{0x30000}, kSmallEnd, ~std::uint64_t{0}})
        EXPECT_TRUE(FindStack(*Memory(kSmallEnd), pointer).innermost.IsEmpty()) << pointer;
    EXPECT_TRUE(FindStack(SnapshotMappings{}, kStart).innermost.IsEmpty());
}

TEST(StackExtent, OfADeepStackBothEndsAreKept)
{
    const StackExtent extent = FindStack(*Memory(kLargeEnd), kStart + 0x1000);

    EXPECT_EQ(kStart + 0x1000 - 128, extent.innermost.start);
    EXPECT_EQ(extent.innermost.start + 0x80000, extent.innermost.end);
    EXPECT_EQ(kLargeEnd - 0x10000, extent.outermost.start);
    EXPECT_EQ(kLargeEnd, extent.outermost.end);
}

TEST(StackExtent, StackOfJustTheKeptSizeIsOnePiece)
{
    const std::uint64_t pointer = kLargeEnd - 0x90000 + 128;
    EXPECT_TRUE(FindStack(*Memory(kLargeEnd), pointer).outermost.IsEmpty());
    EXPECT_FALSE(FindStack(*Memory(kLargeEnd), pointer - 1).outermost.IsEmpty());
}

} // namespace
