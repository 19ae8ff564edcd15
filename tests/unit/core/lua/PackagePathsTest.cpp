#include "lua/PackagePaths.h"

#include <gtest/gtest.h>

using VelCore::CModulePath;
using VelCore::ModulePath;

namespace {

TEST(PackagePaths, OwnFilesStandBetweenTheGivenPathAndTheBuiltInOne)
{
    EXPECT_EQ("/x/?.lua;/b/?.lua;/b/?/init.lua;/usr/?.lua", ModulePath("/b", "/x/?.lua", "/usr/?.lua"));
    EXPECT_EQ("/x/?.so;/b/lib/?.so;/usr/?.so", CModulePath("/b", "/x/?.so", "/usr/?.so"));
}

TEST(PackagePaths, AnEmptyPathIsLeftOut)
{
    EXPECT_EQ("/b/?.lua;/b/?/init.lua;/usr/?.lua", ModulePath("/b", "", "/usr/?.lua"));
    EXPECT_EQ("/b/lib/?.so;/usr/?.so", CModulePath("/b", "", "/usr/?.so"));
}

TEST(PackagePaths, TheGivenPathIsTakenAsItIs)
{
    EXPECT_EQ("./?.lua;;rel/?.lua;/b/?.lua;/b/?/init.lua", ModulePath("/b", "./?.lua;;rel/?.lua", ""));
}

TEST(PackagePaths, RelativeEntriesOfTheBuiltInPathAreLeftOut)
{
    EXPECT_EQ("/b/?.lua;/b/?/init.lua;/a/?.lua;/c/?.lua", ModulePath("/b", "", "./?.lua;/a/?.lua;?.lua;/c/?.lua;./x"));
    EXPECT_EQ("/b/lib/?.so", CModulePath("/b", "", "./?.so"));
    EXPECT_EQ("/b/lib/?.so", CModulePath("/b", "", ";;"));
    EXPECT_EQ("/b/lib/?.so", CModulePath("/b", "", ""));
    EXPECT_EQ("/b/lib/?.so;/a;/c", CModulePath("/b", "", ";/a;;/c;"));
}

} // namespace
