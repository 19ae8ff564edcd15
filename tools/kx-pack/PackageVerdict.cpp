// The verdict on plug-in packages and removal markers.
//
// Tested by: blackbox/test_kx_pack.py, which compares it with the agent.

#include <cerrno>

#include <wx/filename.h>
#include <wx/log.h>

#include <VelCore/AgentEvent.h>
#include <VelCore/Unzip.h>
#include <VelCore/Utf8.h>

#include "PackageFileName.h"
#include "Records.h"
#include "ScratchFolder.h"
#include "Verdict.h"
#include "packages/PackageEvent.h"
#include "packages/PackageName.h"
#include "packages/PackageRefusal.h"

namespace {

bool Unpack(void*, const wxZipEntry*, const wxString*)
{
    return true;
}

bool OnlyLook(void*, const wxZipEntry*, const wxString*)
{
    return false;
}

using Callback = bool (*)(void*, const wxZipEntry*, const wxString*);

// Walks the archive into a folder that is thrown away, and keeps what is said about it.
std::optional<Failure> Walk(const wxFileName& archive, Callback callback, Verdict& verdict)
{
    CScratchFolder scratch;
    if (auto failure = scratch.Make())
        return failure;
    const CRecords records;
    const wxFileName destination = wxFileName::DirName(VelCore::FromUtf8(scratch.Path()));
    verdict.accepted = VelCore::Unzip(archive, destination, callback, nullptr);
    verdict.lines = records.Lines();
    return std::nullopt;
}

// It is installed all the same, and again at each start.
void SayThatItKeepsItsName(const wxString& package, Verdict& verdict)
{
    const CRecords records;
    wxLogSysError(ENAMETOOLONG, L"Unable to delete %s", package);
    verdict.lines.insert(verdict.lines.end(), records.Lines().begin(), records.Lines().end());
}

void RefuseWith(const wxString& warning, Verdict& verdict)
{
    verdict.accepted = false;
    verdict.lines.push_back("Warning: " + VelCore::ToUtf8(warning));
}

void DescribeEvent(const wxFileName& package, PackageOutcome outcome, Verdict& verdict)
{
    VelCore::CAgentEvent event;
    SetOutcome(event, outcome);
    verdict.consequence = "agent event " + std::to_string(event.eventNumber) + " for plug-in '" +
                          VelCore::ToUtf8(getPluginName(package)) + "'";
}

} // namespace

std::optional<Failure> JudgePackage(const std::string& path, Verdict& verdict)
{
    const wxFileName package(VelCore::FromUtf8(path));
    const wxString shown = package.GetFullPath();
    if (!VersionAllows(package.GetName())) {
        RefuseWith(VersionMismatchWarning(shown), verdict);
    } else if (!wxIsReadable(shown)) {
        RefuseWith(NotReadableWarning(shown), verdict);
    } else if (auto failure = Walk(package, Unpack, verdict)) {
        return failure;
    }
    if (verdict.accepted && !HasRoomForDone(VelCore::ToUtf8(package.GetFullName())))
        SayThatItKeepsItsName(shown, verdict);
    DescribeEvent(package, verdict.accepted ? PackageOutcome::Installed : PackageOutcome::NotInstalled, verdict);
    return std::nullopt;
}

std::optional<Failure> JudgeMarker(const std::string& path, Verdict& verdict)
{
    const wxFileName marker(VelCore::FromUtf8(path));
    if (!wxIsReadable(marker.GetFullPath())) {
        RefuseWith(NotReadableWarning(marker.GetFullPath()), verdict);
    } else if (auto failure = Walk(marker, OnlyLook, verdict)) {
        return failure;
    }
    DescribeEvent(marker, verdict.accepted ? PackageOutcome::Removed : PackageOutcome::NotRemoved, verdict);
    return std::nullopt;
}
