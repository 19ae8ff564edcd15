// Linux on AMD64: threads are stopped with ptrace; all else is read in /proc.
//
// Source: ptrace(2), "PTRACE_SEIZE"; proc(5); prctl(2), PR_SET_PTRACER; for the registers in a handler's context
//         <sys/ucontext.h>.
// Tested by: unit/core/crash/ProcessSnapshotTest.cpp, blackbox/test_crash_dumps.py.

#include "crash/ProcessSnapshot.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <asm/prctl.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include "crash/CrashReport.h"
#include "crash/MapsText.h"
#include "crash/ModuleList.h"
#include "crash/TextBuffer.h"

namespace VelCore {
namespace {

using Minidump::ContextAmd64;

// A thread that the kernel itself holds up does not stop; the others take microseconds.
const int kStopAttempts = 500; // of a millisecond, for all threads together

// Threads that start while the list is read make another round; new ones can only come from threads not yet stopped.
const int kMostRounds = 10;

class CLinuxMemory final : public CProcessMemory
{
public:
    void Open(pid_t process);
    std::size_t Read(std::uint64_t address, void* to, std::size_t size) const override;

private:
    int m_file = -1;
};

CLinuxMemory g_memory;

// /proc/<process>/<rest>, terminated.
class CProcPath
{
public:
    CProcPath(pid_t process, std::string_view rest)
    {
        CTextBuffer text(m_path, sizeof m_path - 1);
        text.Add("/proc/").AddNumber(process).Add("/").Add(rest);
    }
    const char* Get() const { return m_path; }

private:
    char m_path[64] = {};
};

int OpenProcFile(pid_t process, std::string_view name)
{
    return open(CProcPath(process, name).Get(), O_RDONLY | O_CLOEXEC);
}

std::string_view ReadWhole(int file, char* buffer, std::size_t size)
{
    std::size_t length = 0;
    while (length < size) {
        const ssize_t part = read(file, buffer + length, size - length);
        if (part < 0 && errno == EINTR)
            continue;
        if (part <= 0)
            break;
        length += static_cast<std::size_t>(part);
    }
    return {buffer, length};
}

// The file of the process, or else our own, which was the same when we were forked.
template <std::size_t Size>
std::string_view ReadProcFile(pid_t process, std::string_view name, char (&buffer)[Size])
{
    for (const pid_t of : {process, getpid()}) {
        const int file = OpenProcFile(of, name);
        if (file < 0)
            continue;
        const std::string_view text = ReadWhole(file, buffer, Size);
        close(file);
        if (!text.empty())
            return text;
    }
    return {};
}

void CLinuxMemory::Open(pid_t process)
{
    if (m_file >= 0)
        close(m_file);
    m_file = OpenProcFile(process, "mem");
    if (m_file < 0)
        m_file = OpenProcFile(getpid(), "mem");
}

std::size_t CLinuxMemory::Read(std::uint64_t address, void* to, std::size_t size) const
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t part =
            pread64(m_file, static_cast<char*>(to) + done, size - done, static_cast<off64_t>(address + done));
        if (part < 0 && errno == EINTR)
            continue;
        if (part <= 0)
            break;
        done += static_cast<std::size_t>(part);
    }
    return done;
}

void TakeHandlerContext(const ucontext_t& from, ContextAmd64& to)
{
    const greg_t* const registers = from.uc_mcontext.gregs;
    const auto at = [registers](int index) { return static_cast<std::uint64_t>(registers[index]); };
    // Code segment, then gs and fs, then, on newer systems, the stack segment, 16 bits each.
    const std::uint64_t segments = at(REG_CSGSFS);
    to.flags = Minidump::kContextAll;
    to.cs = static_cast<std::uint16_t>(segments);
    to.gs = static_cast<std::uint16_t>(segments >> 16);
    to.fs = static_cast<std::uint16_t>(segments >> 32);
    to.ss = static_cast<std::uint16_t>(segments >> 48);
    to.eflags = static_cast<std::uint32_t>(at(REG_EFL));
    to.rax = at(REG_RAX);
    to.rcx = at(REG_RCX);
    to.rdx = at(REG_RDX);
    to.rbx = at(REG_RBX);
    to.rsp = at(REG_RSP);
    to.rbp = at(REG_RBP);
    to.rsi = at(REG_RSI);
    to.rdi = at(REG_RDI);
    to.r8 = at(REG_R8);
    to.r9 = at(REG_R9);
    to.r10 = at(REG_R10);
    to.r11 = at(REG_R11);
    to.r12 = at(REG_R12);
    to.r13 = at(REG_R13);
    to.r14 = at(REG_R14);
    to.r15 = at(REG_R15);
    to.rip = at(REG_RIP);
    if (from.uc_mcontext.fpregs) {
        static_assert(sizeof *from.uc_mcontext.fpregs == sizeof to.fxsave);
        std::memcpy(to.fxsave, from.uc_mcontext.fpregs, sizeof to.fxsave);
        to.mxcsr = from.uc_mcontext.fpregs->mxcsr;
    }
}

void TakeStoppedContext(const user_regs_struct& from, const user_fpregs_struct& floating, ContextAmd64& to)
{
    to.flags = Minidump::kContextAll;
    to.cs = static_cast<std::uint16_t>(from.cs);
    to.ds = static_cast<std::uint16_t>(from.ds);
    to.es = static_cast<std::uint16_t>(from.es);
    to.fs = static_cast<std::uint16_t>(from.fs);
    to.gs = static_cast<std::uint16_t>(from.gs);
    to.ss = static_cast<std::uint16_t>(from.ss);
    to.eflags = static_cast<std::uint32_t>(from.eflags);
    to.rax = from.rax;
    to.rcx = from.rcx;
    to.rdx = from.rdx;
    to.rbx = from.rbx;
    to.rsp = from.rsp;
    to.rbp = from.rbp;
    to.rsi = from.rsi;
    to.rdi = from.rdi;
    to.r8 = from.r8;
    to.r9 = from.r9;
    to.r10 = from.r10;
    to.r11 = from.r11;
    to.r12 = from.r12;
    to.r13 = from.r13;
    to.r14 = from.r14;
    to.r15 = from.r15;
    to.rip = from.rip;
    static_assert(sizeof floating == sizeof to.fxsave);
    std::memcpy(to.fxsave, &floating, sizeof to.fxsave);
    to.mxcsr = floating.mxcsr;
}

void TakeThreadName(pid_t process, SnapshotThread& thread)
{
    char rest[32] = {};
    CTextBuffer(rest, sizeof rest).Add("task/").AddNumber(thread.id).Add("/comm");
    char name[sizeof thread.name] = {};
    const int file = OpenProcFile(process, rest);
    if (file < 0)
        return;
    const std::string_view text = ReadWhole(file, name, sizeof name);
    close(file);
    std::memcpy(thread.name, text.data(), std::min(text.find('\n'), text.size()));
}

// What our own thread-local data is at is that of the crashed thread, whose copy we are.
std::uint64_t OwnThreadData()
{
    unsigned long address = 0;
    syscall(SYS_arch_prctl, ARCH_GET_FS, &address);
    return address;
}

void TakeCrashedThread(const CrashSite& site, ProcessSnapshot& snapshot)
{
    SnapshotThread* const thread = snapshot.threads.Add();
    *thread = {};
    thread->id = site.thread;
    thread->threadData = OwnThreadData();
    TakeHandlerContext(*static_cast<const ucontext_t*>(site.context), thread->context);
    TakeThreadName(site.process, *thread);

    snapshot.faultAddress =
        HasFaultAddress(site) ? reinterpret_cast<std::uintptr_t>(site.information->si_addr) : thread->context.rip;
}

bool AwaitStop(pid_t thread, int& attempts)
{
    for (;; --attempts) {
        int status = 0;
        const pid_t stopped = waitpid(thread, &status, __WALL | WNOHANG);
        if (stopped == thread)
            return WIFSTOPPED(status);
        if ((stopped < 0 && errno != EINTR) || attempts <= 0)
            return false;
        poll(nullptr, 0, 1);
    }
}

// Adds the thread. Returns false when the system does not let us look at it.
bool TakeOtherThread(pid_t process, pid_t id, SnapshotThreads& threads, int& attempts)
{
    if (ptrace(PTRACE_SEIZE, id, nullptr, nullptr) != 0)
        return errno == ESRCH; // it has ended meanwhile
    if (ptrace(PTRACE_INTERRUPT, id, nullptr, nullptr) != 0 || !AwaitStop(id, attempts))
        return false;

    user_regs_struct registers = {};
    user_fpregs_struct floating = {};
    if (ptrace(PTRACE_GETREGS, id, nullptr, &registers) != 0 || ptrace(PTRACE_GETFPREGS, id, nullptr, &floating) != 0)
        return false;
    SnapshotThread* const thread = threads.Add();
    if (!thread)
        return true;
    *thread = {};
    thread->id = id;
    thread->threadData = registers.fs_base;
    TakeStoppedContext(registers, floating, thread->context);
    TakeThreadName(process, *thread);
    return true;
}

struct DirectoryEntry64
{
    std::uint64_t inode;
    std::int64_t next;
    std::uint16_t size;
    std::uint8_t type;
    char name[1];
};

pid_t ParseId(const char* text)
{
    pid_t id = 0;
    for (; *text >= '0' && *text <= '9'; ++text)
        id = id * 10 + (*text - '0');
    return *text == '\0' ? id : 0;
}

// Calls visit with the id of every thread of the process. The C library's readdir would allocate.
template <typename Visit>
void ForEachThread(pid_t process, Visit visit)
{
    alignas(DirectoryEntry64) static char buffer[32768];
    const int folder = open(CProcPath(process, "task").Get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return;
    long length = 0;
    while ((length = syscall(SYS_getdents64, folder, buffer, sizeof buffer)) > 0) {
        for (long position = 0; position < length;) {
            const char* const entry = buffer + position;
            std::uint16_t size = 0;
            std::memcpy(&size, entry + offsetof(DirectoryEntry64, size), sizeof size);
            if (const pid_t id = ParseId(entry + offsetof(DirectoryEntry64, name)))
                visit(id);
            position += size;
        }
    }
    close(folder);
}

using ThreadIds = FixedRows<pid_t, 4096>;

// Stops and adds all threads but the crashed one. Those that cannot be looked at are counted.
void TakeOtherThreads(const CrashSite& site, ProcessSnapshot& snapshot)
{
    static ThreadIds known;
    int attempts = kStopAttempts;
    for (int round = 0; round < kMostRounds; ++round) {
        const std::size_t before = known.size();
        ForEachThread(site.process, [&](pid_t id) {
            if (id == site.thread || std::find(known.begin(), known.end(), id) != known.end())
                return;
            if (pid_t* row = known.Add())
                *row = id;
            if (!TakeOtherThread(site.process, id, snapshot.threads, attempts))
                ++snapshot.threadsNotStopped;
        });
        if (known.size() == before)
            break;
    }
    snapshot.threadsNotStopped += snapshot.threads.LeftOut() + known.LeftOut();
}

std::string_view SystemText()
{
    static char text[256];
    struct utsname system = {};
    uname(&system);
    CTextBuffer buffer(text, sizeof text);
    buffer.Add(system.sysname).Add(" ").Add(system.release).Add(" ").Add(system.version).Add(" ").Add(system.machine);
    return buffer.Text();
}

int ProcessorCount()
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    sched_getaffinity(0, sizeof processors, &processors);
    return CPU_COUNT(&processors);
}

} // namespace

bool TakeSnapshot(const CrashSite& site, ProcessSnapshot& snapshot)
{
    static char maps[4 * 1024 * 1024];
    static char status[8192];
    static char commandLine[16384];
    static char auxv[4096];

    snapshot.process = site.process;
    snapshot.crashedThread = site.thread;
    snapshot.signal = site.signal;
    snapshot.signalCode = site.information->si_code;
    snapshot.time = time(nullptr);
    snapshot.processorCount = ProcessorCount();
    snapshot.systemText = SystemText();
    TakeCrashedThread(site, snapshot);
    TakeOtherThreads(site, snapshot);

    g_memory.Open(site.process);
    snapshot.mapsText = ReadProcFile(site.process, "maps", maps);
    snapshot.statusText = ReadProcFile(site.process, "status", status);
    snapshot.commandLine = ReadProcFile(site.process, "cmdline", commandLine);
    snapshot.auxv = ReadProcFile(site.process, "auxv", auxv);
    ReadMappings(snapshot.mapsText, snapshot.mappings);
    FindModules(snapshot.mappings, g_memory, snapshot.modules);
    return true;
}

const CProcessMemory& SnapshotMemory()
{
    return g_memory;
}

pid_t CurrentThread()
{
    return gettid();
}

pid_t ForkInHandler()
{
    // Unlike fork it takes no lock and runs nobody's preparations.
    return _Fork();
}

void AllowInspection()
{
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
}

void EndWithParent()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
}

void CloseDescriptorsFrom(int first)
{
    if (close_range(static_cast<unsigned>(first), ~0U, 0) == 0)
        return;
    struct rlimit limit = {}; // a kernel before 5.9
    getrlimit(RLIMIT_NOFILE, &limit);
    for (int descriptor = first; descriptor < static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 65536)); ++descriptor)
        close(descriptor);
}

void RaiseInThread(int signal)
{
    tgkill(getpid(), gettid(), signal);
}

const char* ErrorText(int error)
{
    const char* const text = strerrordesc_np(error);
    return text ? text : "unknown error";
}

} // namespace VelCore
