#include "packages/PackageRefusal.h"

#include <gtest/gtest.h>

namespace {

TEST(PackageRefusal, TheWarningsNameThePath)
{
    EXPECT_EQ(L"Plugin file '/a/b.kxp' does not match VEL core version, not installing",
              VersionMismatchWarning(L"/a/b.kxp"));
    EXPECT_EQ(L"Plugin file '/a/b.kxu' isn't readable", NotReadableWarning(L"/a/b.kxu"));
}

TEST(PackageRefusal, APathIsNoFormat)
{
    EXPECT_EQ(L"Plugin file '/100%s%n/it's' isn't readable", NotReadableWarning(L"/100%s%n/it's"));
    EXPECT_EQ(L"Plugin file '/%d%d' does not match VEL core version, not installing", VersionMismatchWarning(L"/%d%d"));
}

} // namespace
