// Path templates times plug-ins.
//
// Tested by: unit/agent/cmdline/ExpandPathPluginsTest.cpp.

#include "cmdline/ExpandPathPlugins.h"

#include <wx/tokenzr.h>

wxString ExpandPathPlugins(const wxString& pathList, const wxString& pluginList)
{
    if (pluginList.empty())
        return pathList;

    wxString result;
    // The mode is named because the tokenizer's default would skip empty pieces when a separator is white space only.
    for (wxStringTokenizer segments(pathList, L";", wxTOKEN_RET_EMPTY); segments.HasMoreTokens();) {
        const wxString segment = segments.GetNextToken();
        for (wxStringTokenizer plugins(pluginList, L",", wxTOKEN_RET_EMPTY); plugins.HasMoreTokens();) {
            wxString expanded = segment;
            expanded.Replace(L"@", plugins.GetNextToken());
            if (!result.empty())
                result += L';';
            result += expanded;
        }
    }
    return result;
}
