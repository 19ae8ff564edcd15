// Lists of trace modules.
//
// Tested by: unit/agent/cmdline/TraceListTest.cpp.

#include "cmdline/TraceList.h"

wxString WithoutQuotes(const wxString& list)
{
    wxString result = list;
    result.Replace(L"'", L"");
    result.Replace(L"\"", L"");
    return result;
}
