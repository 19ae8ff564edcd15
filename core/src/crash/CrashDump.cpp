// Dump first, then the record, then the calls in Lua.
//
// Tested by: blackbox/test_crash_dumps.py.

#include "crash/CrashDump.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "crash/CrashLog.h"
#include "crash/CrashNotes.h"
#include "crash/CrashReport.h"
#include "crash/DumpFile.h"
#include "crash/MinidumpWriter.h"
#include "lua/RunningLua.h"
#include "process/Descriptors.h"

namespace VelCore {
namespace {

// For walking through a Lua state, which takes microseconds when it is in order.
const int kLuaPatienceMs = 1000;

ProcessSnapshot g_snapshot{};

std::string_view Notes()
{
    static char memory[40960];
    CTextBuffer text(memory, sizeof memory);
    AddCrashNotes(text);
    return text.Text();
}

void AddPath(const DumpSettings& settings, CTextBuffer& text)
{
    text.Add(settings.folder).Add("/").Add(settings.name);
}

void AddReason(const CDumpFile& file, CTextBuffer& text)
{
    text.Add(file.FailedAction()).Add(": ").Add(ErrorText(file.Error()));
}

// full  the dump with all memory that could not be written before; null when there was none
void RecordSuccess(const CrashSite& site, const DumpSettings& settings, const CDumpFile* full)
{
    char memory[8192];
    CTextBuffer text(memory, sizeof memory);
    AddCrash(site, text);
    text.Add(", dump in ");
    AddPath(settings, text);
    if (full) {
        text.Add(" without all memory (");
        AddReason(*full, text);
        text.Add(")");
    }
    if (g_snapshot.threadsNotStopped > 0)
        text.Add(" without ")
            .AddNumber(static_cast<std::int64_t>(g_snapshot.threadsNotStopped))
            .Add(" other threads, which the system does not let us look at");
    WriteCrashRecord(site.process, text.Text());
}

void RecordFailure(const CrashSite& site, const DumpSettings& settings, const CDumpFile& file)
{
    char memory[8192];
    CTextBuffer text(memory, sizeof memory);
    AddCrash(site, text);
    text.Add("; no dump could be written: '");
    AddPath(settings, text);
    text.Add("': ");
    AddReason(file, text);
    WriteCrashRecord(site.process, text.Text());
}

// The text that a forked process makes of the state; empty when it takes too long. What there is of it when the process
// crashes.
std::string_view TakeLuaCalls(lua_State* L)
{
    static char memory[16384];
    int ends[2];
    if (pipe(ends) != 0)
        return {};
    const pid_t child = ForkInHandler();
    if (child == 0) {
        EndWithParent();
        CTextBuffer text(memory, sizeof memory);
        AddLuaCalls(L, text);
        WriteAll(ends[1], text.Text()); // a pipe holds as much
        _exit(0);
    }
    close(ends[1]);
    struct pollfd readable = {ends[0], POLLIN, 0};
    std::size_t length = 0;
    while (child > 0 && poll(&readable, 1, kLuaPatienceMs) > 0) {
        const ssize_t part = read(ends[0], memory + length, sizeof memory - length);
        if (part <= 0)
            break;
        length += static_cast<std::size_t>(part);
    }
    close(ends[0]);
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    return {memory, length};
}

void TellLuaCalls(const CrashSite& site, CMinidumpWriter* writer)
{
    lua_State* const L = RunningLua();
    const std::string_view calls = L ? TakeLuaCalls(L) : std::string_view();
    if (calls.empty())
        return;
    if (writer)
        writer->AddLuaTraceback(calls);

    static char memory[16384];
    CTextBuffer text(memory, sizeof memory);
    text.Add("The crashed thread was running Lua\n").Add(calls);
    WriteCrashRecord(site.process, text.Text());
}

// Returns whether the dump is in its place. What was begun is removed, so that its room can be used again.
bool WriteDump(const CrashSite& site, const DumpSettings& settings, bool full, CDumpFile& file, CMinidumpWriter& writer)
{
    if (file.Create(settings.folder, settings.name, site.process) && writer.Write(g_snapshot, Notes(), full) &&
        file.Keep())
        return true;
    file.Discard();
    return false;
}

// Makes what was missing at the start. Whoever stands in its place shows when the dump is created.
void MakeFolder(const DumpSettings& settings)
{
    const std::string_view folder = settings.folder;
    char path[sizeof settings.folder];
    for (std::size_t end = settings.present; end < folder.size();) {
        end = std::min(folder.find('/', end + 1), folder.size());
        folder.copy(path, end);
        path[end] = '\0';
        mkdir(path, 0700);
    }
}

void DumpSnapshot(const CrashSite& site, const DumpSettings& settings)
{
    MakeFolder(settings);
    CDumpFile fullFile;
    if (settings.full) {
        CMinidumpWriter writer(fullFile, SnapshotMemory());
        if (WriteDump(site, settings, true, fullFile, writer)) {
            RecordSuccess(site, settings, nullptr);
            TellLuaCalls(site, &writer);
            return;
        }
    }

    CDumpFile file;
    CMinidumpWriter writer(file, SnapshotMemory());
    const bool isWritten = WriteDump(site, settings, false, file, writer);
    if (isWritten)
        RecordSuccess(site, settings, settings.full ? &fullFile : nullptr);
    else
        RecordFailure(site, settings, file);
    TellLuaCalls(site, isWritten ? &writer : nullptr);
}

} // namespace

void DumpCrashedProcess(const CrashSite& site, const DumpSettings& settings)
{
    if (TakeSnapshot(site, g_snapshot)) {
        DumpSnapshot(site, settings);
        return;
    }
    char memory[256];
    CTextBuffer text(memory, sizeof memory);
    AddCrash(site, text);
    WriteCrashRecord(site.process, text.Add("; no dump could be written: not possible on this system").Text());
    TellLuaCalls(site, nullptr);
}

} // namespace VelCore
