// CAgentApp: the list of archives that Lua modules are searched in.
//
// Tested by: unit/agent/luahost/{Tokenize,ZipSpec}Test.cpp, blackbox/test_zippath.py.

#include "AgentApp.h"

#include <vector>

#include <wx/config.h>
#include <wx/dir.h>
#include <wx/filename.h>
#include <wx/log.h>

#include <VelCore/Dom.h>
#include <VelCore/SkippedArchives.h>
#include <VelCore/Trace.h>

#include "DomainKeys.h"
#include "cmdline/Environment.h"
#include "luahost/Tokenize.h"
#include "luahost/ZipSpec.h"

using VelCore::LogTrace;
using VelCore::LogTraceIsEnabled;

namespace {

const wchar_t* const kArchiveExtension = L"kxe";
const int kNormalise = wxPATH_NORM_DOTS | wxPATH_NORM_TILDE | wxPATH_NORM_ABSOLUTE;

// The application's own archive, then the generic one; each only if it is a file.
void AppendCoreArchives(const wxString& bin, const wxString& applicationName, wxString& zippath)
{
    wxFileName archive = wxFileName::DirName(bin);
    archive.AppendDir(L"vel_core");
    archive.SetExt(kArchiveExtension);

    archive.SetName(applicationName);
    if (archive.FileExists())
        AppendToList(zippath, archive.GetFullPath());
    if (applicationName == L"vel")
        return;
    archive.SetName(L"vel");
    if (archive.FileExists())
        AppendToList(zippath, archive.GetFullPath());
}

// The pattern for all extensions in the folder; empty when there is no such folder.
wxString ExtensionPattern(const wxString& folder, const wxString& bin)
{
    if (folder.empty())
        return wxString();
    wxFileName pattern = wxFileName::DirName(ExpandHome(folder));
    pattern.SetName(L"*");
    pattern.SetExt(kArchiveExtension);
    pattern.Normalize(kNormalise, bin);
    return pattern.DirExists() ? pattern.GetFullPath() : wxString();
}

// Files, not folders, of the pattern's own folder, in the order in which the system lists them.
wxArrayString MatchingFiles(const wxFileName& pattern)
{
    wxArrayString files;
    wxString name = pattern.GetFullName();
    name.Replace(L"\\", L"\\\\"); // the framework would take it for a quote; here only "*" and "?" are special
    // An empty pattern would match every file.
    if (!name.empty() && pattern.IsDirReadable())
        wxDir::GetAllFiles(pattern.GetPath(), &files, name, wxDIR_FILES);
    return files;
}

} // namespace

void CAgentApp::ExpandZippath()
{
    const char* const function = "ExpandZippath";
    const wxString bin = m_dom->GetWxString(DomainKeys::kPathBin);
    wxString zippath;
    AppendCoreArchives(bin, GetAppName(), zippath);

    const wxString extensions = ExtensionPattern(m_extensionFolder, bin);
    if (!extensions.empty())
        AppendToList(m_zippath, extensions);
    if (LogTraceIsEnabled(s_Trace))
        LogTrace(s_Trace, __FILE__, __LINE__, function, wxString::Format(L"zipFilespec: %s", m_zippath));

    std::vector<wxString> tokens;
    Tokenize(tokens, m_zippath, L";");
    m_zippath.clear();
    for (const wxString& token : tokens)
        AppendSpecification(token, zippath);

    if (!zippath.empty())
        m_dom->SetWx(DomainKeys::kLuaZippath, zippath);
    if (LogTraceIsEnabled(s_Trace))
        LogTrace(s_Trace, __FILE__, __LINE__, function,
                 zippath.empty() ? wxString(L"app.lua.zippath empty ")
                                 : wxString::Format(L"app.lua.zippath '%s' ", zippath));
}

// Appends the files that one token of the specification names or matches.
void CAgentApp::AppendSpecification(const wxString& token, wxString& zippath)
{
    // A name with a path that a variable brings in still counts as explicit: the token decides as it is written.
    const bool isPattern = IsWildcard(token);
    wxFileName specification(ExpandFileName(token));
    // The framework counts a leading "~" as absolute.
    if (specification.IsRelative() || specification.GetFullPath().StartsWith(L"~"))
        specification.Normalize(kNormalise, m_dom->GetWxString(DomainKeys::kPathBin));

    const wxArrayString files = MatchingFiles(specification);
    for (const wxString& file : files) {
        wxFileName candidate(file);
        candidate.Normalize(kNormalise);
        const wxString path = candidate.GetFullPath();
        if (!wxIsReadable(path)) {
            wxLogWarning(L"Extension file '%s' isn't readable", path);
            VelCore::NoteSkippedArchive(path, L"it isn't readable");
            continue;
        }
        // Explicitly named files skip the version gate: an operator who names a file means it.
        if (isPattern && !ExtensionVersionIsOK(path))
            continue;
        if (LogTraceIsEnabled(s_Trace))
            LogTrace(s_Trace, __FILE__, __LINE__, "ExpandZippath",
                     wxString::Format(L"Adding extension file '%s' to the search path.", path));
        AppendToList(zippath, path);
    }
    if (files.empty() && !IsWildcard(specification.GetFullName())) {
        wxLogWarning(L"%s: no matches", token);
        VelCore::NoteSkippedArchive(specification.GetFullPath(), L"there is no such file");
    }
}
