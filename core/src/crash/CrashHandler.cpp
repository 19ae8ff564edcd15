// The signals of a crash: a fork writes the dump, and the process dies.
//
// The handler itself does next to nothing, because everything around it may be broken. Its signals stay open while it
// runs, so that a crash in it is noticed, too.
//
// Tested by: blackbox/test_crash_dumps.py.

#include <VelCore/CrashHandler.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <string>

#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <VelCore/Utf8.h>

#include "crash/AlternateStack.h"
#include "crash/CrashDump.h"
#include "crash/CrashLog.h"
#include "crash/CrashReport.h"
#include "crash/DumpFile.h"
#include "trace/LogFile.h"

namespace VelCore {
namespace {

const int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT};

const int kPatienceMs = 10000;
const int kFullPatienceMs = 60000;
const int kRecordPatienceMs = 1000;

DumpSettings g_settings;

// Of the main thread; kept for as long as it runs, which is longer than static objects live.
std::atomic<const CAlternateStack*> g_mainStack{nullptr};

// Process and thread that handles its crash, 32 bits each. Both, because a fork inherits the variable, and not the
// crash.
std::atomic<std::uint64_t> g_owner{0};
std::atomic<int> g_firstSignal{0};
std::atomic<bool> g_hasReported{false};

std::uint64_t OwnerOf(pid_t process, pid_t thread)
{
    return static_cast<std::uint64_t>(process) << 32 | static_cast<std::uint32_t>(thread);
}

void SetDefault(int signal)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

[[noreturn]] void Die(int signal)
{
    SetDefault(signal);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal);
    pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
    RaiseInThread(signal);
    _exit(128 + signal); // the first process of a container does not die of a signal that it sends to itself
}

void RecordNoDump(const CrashSite& site, std::string_view reason)
{
    char memory[1024];
    CTextBuffer text(memory, sizeof memory);
    AddCrash(site, text);
    text.Add("; no dump could be written: ").Add(reason);
    WriteCrashRecord(site.process, text.Text());
}

std::int64_t NowMs()
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

enum class ForkEnd { Done, Crashed, TookTooLong, NotStarted };

ForkEnd AwaitEnd(pid_t child, int patienceMs)
{
    const std::int64_t end = NowMs() + patienceMs;
    while (NowMs() <= end) {
        int status = 0;
        const pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child || (ended < 0 && errno != EINTR))
            return status == 0 ? ForkEnd::Done : ForkEnd::Crashed;
        poll(nullptr, 0, 1);
    }
    // Not waited for: a disk that does not answer would hold it up, and with it this process.
    kill(child, SIGKILL);
    return ForkEnd::TookTooLong;
}

// Does `work` in a fork, which has descriptors to spare, and may crash or hang.
template <typename Work>
ForkEnd RunInFork(int patienceMs, Work work)
{
    const pid_t child = ForkInHandler();
    if (child < 0)
        return ForkEnd::NotStarted;
    if (child > 0)
        return AwaitEnd(child, patienceMs);
    for (const int signal : kSignals)
        SetDefault(signal);
    EndWithParent();
    CloseDescriptorsFrom(STDERR_FILENO + 1);
    work();
    _exit(0);
}

const char* ReasonOf(ForkEnd end)
{
    switch (end) {
    case ForkEnd::TookTooLong:
        return "it took too long";
    case ForkEnd::Crashed:
        return "the process that writes it has crashed";
    default:
        return ErrorText(errno);
    }
}

void Dump(const CrashSite& site)
{
    // The end of the forks has to be seen, whatever the process did with the ends of its children.
    SetDefault(SIGCHLD);
    AllowInspection();
    const int patienceMs = g_settings.full ? kFullPatienceMs : kPatienceMs;
    const ForkEnd end = RunInFork(patienceMs, [&site] { DumpCrashedProcess(site, g_settings); });
    if (end == ForkEnd::Done)
        return;
    const char* const reason = ReasonOf(end);
    const auto record = [&site, reason] { RecordNoDump(site, reason); };
    if (RunInFork(kRecordPatienceMs, record) == ForkEnd::NotStarted)
        record();
}

void OnCrash(int signal, siginfo_t* information, void* context)
{
    const CrashSite site = {getpid(), CurrentThread(), signal, information, context};
    const std::uint64_t self = OwnerOf(site.process, site.thread);
    std::uint64_t owner = g_owner.load();
    for (;;) {
        if (owner == self) {
            if (!g_hasReported.exchange(true))
                RecordNoDump(site, "the handler of an earlier crash has crashed");
            Die(g_firstSignal.load());
        }
        if (owner >> 32 == static_cast<std::uint64_t>(site.process))
            pause(); // another thread has crashed first, and takes this one with it
        else if (g_owner.compare_exchange_weak(owner, self))
            break;
    }
    g_firstSignal.store(signal);
    g_hasReported.store(false);
    Dump(site);
    Die(signal);
}

// A handler that somebody has installed for himself stays, as those of the sanitizers.
void Install(int signal)
{
    struct sigaction present = {};
    sigaction(signal, nullptr, &present);
    if (present.sa_handler != SIG_DFL && present.sa_handler != SIG_IGN)
        return;
    struct sigaction action = {};
    action.sa_sigaction = OnCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigfillset(&action.sa_mask);
    for (const int open : kSignals)
        sigdelset(&action.sa_mask, open);
    sigaction(signal, &action, nullptr);
}

void Copy(const std::string& from, char* to, std::size_t size)
{
    const std::size_t length = std::min(from.size(), size - 1);
    std::memcpy(to, from.data(), length);
    to[length] = '\0';
}

std::string FolderOf(const std::string& file, std::size_t slash)
{
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : file.substr(0, slash);
}

// The longest front part of a path that is there; empty when nothing of it is.
std::string PresentPart(std::string path)
{
    struct stat status = {};
    while (!path.empty() && lstat(path.c_str(), &status) != 0) {
        const std::size_t slash = path.rfind('/');
        path.resize(slash == std::string::npos ? 0 : slash);
    }
    return path;
}

} // namespace

void InitCrashHandler(const wxString& path, const wxString& name, bool full)
{
    const std::string file = ToUtf8(path);
    const std::size_t slash = file.rfind('/');
    Copy(FolderOf(file, slash), g_settings.folder, sizeof g_settings.folder);
    Copy(slash == std::string::npos ? file : file.substr(slash + 1), g_settings.name, sizeof g_settings.name);
    g_settings.present = PresentPart(g_settings.folder).size();
    g_settings.full = full;
    NoteForCrash("app.name", ToUtf8(name));
    CLogFile::Get().TellCrashHandler();
    RemoveAbandonedDumps(g_settings.folder, g_settings.name);

    if (!g_mainStack)
        g_mainStack = new CAlternateStack;
    sigset_t crashes;
    sigemptyset(&crashes);
    for (const int signal : kSignals) {
        Install(signal);
        sigaddset(&crashes, signal);
    }
    // The caller may have left them blocked; a crash would then end the process without the handler.
    pthread_sigmask(SIG_UNBLOCK, &crashes, nullptr);
}

} // namespace VelCore
