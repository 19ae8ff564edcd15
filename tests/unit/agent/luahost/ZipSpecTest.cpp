#include "luahost/ZipSpec.h"

#include <gtest/gtest.h>

namespace {

TEST(ZipSpec, StarsAndQuestionMarksMakeAPattern)
{
    for (const wchar_t* text : {L"*", L"?", L"*.kxe", L"a?.kxe", L"/x*/a.kxe", L"a*"})
        EXPECT_TRUE(IsWildcard(text)) << text;
    for (const wchar_t* text : {L"", L"a.kxe", L"[a].kxe", L"$HOME/x.kxe", L"a%b"})
        EXPECT_FALSE(IsWildcard(text)) << text;
}

TEST(ZipSpec, ASemicolonStandsBetweenEntriesOnly)
{
    wxString list;
    AppendToList(list, L"a");
    EXPECT_EQ(L"a", list);
    AppendToList(list, L"b");
    AppendToList(list, L"c");
    EXPECT_EQ(L"a;b;c", list);
}

} // namespace
