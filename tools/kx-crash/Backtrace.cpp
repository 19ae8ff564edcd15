// Unwinding with libdw: modules come from this machine, registers and memory from the dump.
//
// Tested by: blackbox/test_kx_crash.py.

#include "Backtrace.h"

#include <cstdlib>
#include <set>

#include <cxxabi.h>
#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <unistd.h>

#include "StackGuess.h"

namespace {

// Of an endless recursion so many calls are followed; the report shows fewer.
const std::size_t kMostFrames = 4096;

// The build identifier of a file; empty when it has none or is no ELF file.
std::string BuildIdOf(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return {};
    std::string id;
    if (Elf* elf = elf_begin(file, ELF_C_READ, nullptr)) {
        const void* bytes = nullptr;
        const ssize_t size = dwelf_elf_gnu_build_id(elf, &bytes);
        if (size > 0)
            id.assign(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
        elf_end(elf);
    }
    close(file);
    return id;
}

std::string Demangled(const char* name)
{
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name, nullptr, nullptr, &status), std::free);
    return status == 0 && text ? text.get() : name;
}

} // namespace

struct CBacktrace::Unwinder
{
    explicit Unwinder(const CrashDump& crashDump);
    ~Unwinder() { dwfl_end(dwfl); }
    Unwinder(const Unwinder&) = delete;
    Unwinder& operator=(const Unwinder&) = delete;

    StackFrame FrameAt(std::uint64_t address, bool isCall) const;
    void Unwind(const DumpedThread& thread, std::vector<StackFrame>& into);

    // What libdw asks for.
    static pid_t NextThread(Dwfl* dwfl, void* self, void** threadArgument);
    static bool FindThread(Dwfl* dwfl, pid_t id, void* self, void** threadArgument);
    static bool ReadMemory(Dwfl* dwfl, Dwarf_Addr address, Dwarf_Word* result, void* self);
    static bool SetRegisters(Dwfl_Thread* thread, void* self);
    static int TakeFrame(Dwfl_Frame* frame, void* self);

    const CrashDump& dump;
    std::set<std::string> here; // paths of modules
    Dwfl* dwfl = nullptr;
    const DumpedThread* current = nullptr;
    std::vector<StackFrame>* frames = nullptr;
};

CBacktrace::Unwinder::Unwinder(const CrashDump& crashDump) : dump(crashDump)
{
    static const Dwfl_Callbacks callbacks = {
        [](Dwfl_Module*, void**, const char*, Dwarf_Addr, char**, Elf**) { return -1; }, // files are given below
        dwfl_standard_find_debuginfo, dwfl_offline_section_address, nullptr};
    static const Dwfl_Thread_Callbacks threadCallbacks = {NextThread,   FindThread, ReadMemory,
                                                          SetRegisters, nullptr,    nullptr};
    elf_version(EV_CURRENT);
    dwfl = dwfl_begin(&callbacks);
    if (!dwfl)
        return;
    dwfl_report_begin(dwfl);
    for (const DumpedModule& module : dump.modules) {
        const bool isSame = module.path.compare(0, 1, "/") == 0 && BuildIdOf(module.path) == module.buildId;
        if (isSame && dwfl_report_elf(dwfl, module.path.c_str(), module.path.c_str(), -1, module.start, false))
            here.insert(module.path);
    }
    dwfl_report_end(dwfl, nullptr, nullptr);
    dwfl_attach_state(dwfl, nullptr, static_cast<pid_t>(dump.process), &threadCallbacks, this);
}

pid_t CBacktrace::Unwinder::NextThread(Dwfl*, void* self, void** threadArgument)
{
    const bool isBegin = *threadArgument == nullptr;
    *threadArgument = self;
    return isBegin ? static_cast<pid_t>(static_cast<Unwinder*>(self)->current->id) : 0;
}

bool CBacktrace::Unwinder::FindThread(Dwfl*, pid_t, void* self, void** threadArgument)
{
    *threadArgument = self;
    return true;
}

bool CBacktrace::Unwinder::ReadMemory(Dwfl*, Dwarf_Addr address, Dwarf_Word* result, void* self)
{
    const auto word = static_cast<Unwinder*>(self)->dump.WordAt(address);
    if (word)
        *result = *word;
    return word.has_value();
}

bool CBacktrace::Unwinder::SetRegisters(Dwfl_Thread* thread, void* self)
{
    const auto& context = static_cast<Unwinder*>(self)->current->context;
    // The order is that of DWARF. Source: System V ABI, AMD64, figure 3.36.
    const Dwarf_Word registers[] = {context.rax, context.rdx, context.rcx, context.rbx, context.rsi, context.rdi,
                                    context.rbp, context.rsp, context.r8,  context.r9,  context.r10, context.r11,
                                    context.r12, context.r13, context.r14, context.r15, context.rip};
    dwfl_thread_state_register_pc(thread, context.rip);
    return dwfl_thread_state_registers(thread, 0, std::size(registers), registers);
}

int CBacktrace::Unwinder::TakeFrame(Dwfl_Frame* frame, void* self)
{
    auto& unwinder = *static_cast<Unwinder*>(self);
    Dwarf_Addr address = 0;
    bool isActivation = false; // not behind a call, but where the thread is, or was interrupted
    if (!dwfl_frame_pc(frame, &address, &isActivation) || unwinder.frames->size() == kMostFrames)
        return DWARF_CB_ABORT;
    // Without a module's unwinding tables libdw tries frame pointers, which compilers leave out.
    if (!unwinder.frames->empty() && !unwinder.dump.ModuleAt(address))
        return DWARF_CB_ABORT;
    unwinder.frames->push_back(unwinder.FrameAt(address, !isActivation));
    return DWARF_CB_OK;
}

// isCall  the address is the one to return to, which may be behind the function's end
StackFrame CBacktrace::Unwinder::FrameAt(std::uint64_t address, bool isCall) const
{
    StackFrame frame = {address, {}, {}};
    const std::uint64_t at = address - (isCall ? 1 : 0);
    Dwfl_Module* const module = dwfl ? dwfl_addrmodule(dwfl, at) : nullptr;
    if (!module)
        return frame;
    GElf_Off offset = 0;
    GElf_Sym symbol = {};
    if (const char* name = dwfl_module_addrinfo(module, at, &offset, &symbol, nullptr, nullptr, nullptr))
        frame.function = Demangled(name);
    int line = 0;
    Dwfl_Line* const source = dwfl_module_getsrc(module, at);
    if (const char* file = source ? dwfl_lineinfo(source, nullptr, &line, nullptr, nullptr, nullptr) : nullptr)
        frame.source = std::string(file) + ":" + std::to_string(line);
    return frame;
}

void CBacktrace::Unwinder::Unwind(const DumpedThread& thread, std::vector<StackFrame>& into)
{
    current = &thread;
    frames = &into;
    if (dwfl)
        dwfl_getthread_frames(dwfl, static_cast<pid_t>(thread.id), TakeFrame, this);
}

CBacktrace::CBacktrace(const CrashDump& dump) : m_unwinder(std::make_unique<Unwinder>(dump)) {}

CBacktrace::~CBacktrace() = default;

StackTrace CBacktrace::Of(const DumpedThread& thread)
{
    const CrashDump& dump = m_unwinder->dump;
    StackTrace trace;
    DumpedThread from = thread;
    if (!dump.ModuleAt(thread.context.rip)) {
        // A call to an address without code: the caller is where the call would have returned to.
        trace.frames.push_back({thread.context.rip, {}, {}});
        from.context.rip = dump.WordAt(thread.context.rsp).value_or(0);
        from.context.rsp += 8;
    }
    const std::size_t known = trace.frames.size();
    m_unwinder->Unwind(from, trace.frames);
    if (trace.frames.size() > known + 1) {
        const DumpedModule* const outermost = dump.ModuleAt(trace.frames.back().address);
        trace.isCutShort = !outermost || !IsHere(*outermost);
        return trace;
    }

    if (trace.frames.empty())
        trace.frames.push_back(m_unwinder->FrameAt(thread.context.rip, false));
    for (const StackFrame& frame : GuessFrames(dump, thread))
        trace.frames.push_back(m_unwinder->FrameAt(frame.address, true));
    trace.isGuess = true;
    return trace;
}

bool CBacktrace::IsHere(const DumpedModule& module) const
{
    return m_unwinder->here.count(module.path) != 0;
}
