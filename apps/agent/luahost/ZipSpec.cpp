// Entries of a search list.
//
// Tested by: unit/agent/luahost/ZipSpecTest.cpp.

#include "luahost/ZipSpec.h"

bool IsWildcard(const wxString& text)
{
    return text.find_first_of(L"*?") != wxString::npos;
}

void AppendToList(wxString& list, const wxString& entry)
{
    if (!list.empty())
        list += L';';
    list += entry;
}
