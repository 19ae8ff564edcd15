// The report on a crash.
//
// Tested by: unit/tools/kx-crash/CrashReportTest.cpp, blackbox/test_kx_crash.py.

#include "CrashReport.h"

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>

#include "crash/CrashReport.h"
#include "time/CivilTime.h"
#include "trace/RecordText.h"

using VelCore::EscapeControls;

namespace {

// Of a deep stack both ends are shown.
const std::size_t kInnermost = 60;
const std::size_t kOutermost = 20;

std::string Hex(std::uint64_t number)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%" PRIx64, number);
    return text;
}

// With leading zeros, so that addresses stand in a column.
std::string Address(std::uint64_t number)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%016" PRIx64, number);
    return text;
}

std::string UtcTime(std::int64_t seconds)
{
    const VelCore::CivilTime time = VelCore::CivilTimeOf(seconds);
    char text[64];
    std::snprintf(text, sizeof text, "%04" PRId64 "-%02d-%02d %02d:%02d:%02d UTC", time.year, time.month, time.day,
                  time.hour, time.minute, time.second);
    return text;
}

std::string HexBytes(std::string_view bytes)
{
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

std::string FileName(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string Note(const CrashDump& dump, std::string_view name)
{
    for (const auto& note : dump.notes) {
        if (note.first == name)
            return EscapeControls(note.second);
    }
    return "?";
}

std::string Summary(const CrashDump& dump)
{
    std::string text = "Application  " + Note(dump, "app.name") + " " + Note(dump, "app.version") + ", phase " +
                       Note(dump, "phase") + "\n";
    text += "Crashed      " + UtcTime(dump.time) + ", process " + std::to_string(dump.process) + ", thread " +
            std::to_string(dump.crashedThread) + "\n";
    text += "Signal       " + std::to_string(dump.signal) + " (" + std::string(VelCore::CrashSignalName(dump.signal)) +
            "), code " + std::to_string(dump.signalCode) + ", at address " + Hex(dump.address) + "\n";
    text += "System       " + EscapeControls(dump.system) + "\n";
    text += std::string("Dump         ") + (dump.isFull ? "full, with all writable memory" : "normal") + "\n";
    return text;
}

std::string FrameLine(const CrashDump& dump, const StackFrame& frame, const std::string& number)
{
    std::string text = "  " + number + "  " + Address(frame.address);
    if (const DumpedModule* module = dump.ModuleAt(frame.address))
        text += "  " + EscapeControls(FileName(module->path)) + " + " + Hex(frame.address - module->start);
    else
        text += "  in no module";
    if (!frame.function.empty())
        text += "  " + EscapeControls(frame.function);
    if (!frame.source.empty())
        text += "  (" + EscapeControls(frame.source) + ")";
    return text + "\n";
}

std::string Frames(const CrashDump& dump, const StackTrace& trace)
{
    std::string text;
    const std::size_t count = trace.frames.size();
    const bool isCut = count > kInnermost + kOutermost;
    for (std::size_t index = 0; index < count; ++index) {
        if (isCut && index == kInnermost) {
            index = count - kOutermost;
            text += "  ... " + std::to_string(index - kInnermost) + " calls ...\n";
        }
        if (trace.isGuess && index == 1)
            text += "  The callers cannot be told. Return addresses that are on the stack, also of calls long gone:\n";
        text += FrameLine(dump, trace.frames[index], "#" + std::to_string(index));
    }
    if (trace.isCutShort)
        text += "  The callers of the last one cannot be told: its module is not on this machine, in the build that "
                "crashed.\n";
    return text;
}

std::string ThreadTitle(const DumpedThread& thread)
{
    std::string text = "Thread " + std::to_string(thread.id);
    if (!thread.name.empty())
        text += " \"" + EscapeControls(thread.name) + "\"";
    return text;
}

std::string Registers(const DumpedThread& thread)
{
    const auto& context = thread.context;
    const struct
    {
        const char* name;
        std::uint64_t value;
    } rows[] = {
        {"rax", context.rax}, {"rbx", context.rbx},      {"rcx", context.rcx}, {"rdx", context.rdx},
        {"rsi", context.rsi}, {"rdi", context.rdi},      {"rbp", context.rbp}, {"rsp", context.rsp},
        {"r8 ", context.r8},  {"r9 ", context.r9},       {"r10", context.r10}, {"r11", context.r11},
        {"r12", context.r12}, {"r13", context.r13},      {"r14", context.r14}, {"r15", context.r15},
        {"rip", context.rip}, {"flags", context.eflags},
    };
    std::string text;
    int column = 0;
    for (const auto& row : rows) {
        text += std::string("  ") + row.name + " " + Address(row.value);
        column = (column + 1) % 3;
        text += column == 0 ? "\n" : "";
    }
    return text;
}

// The traceback's own lines stay lines; everything else in it is escaped.
std::string LuaSection(std::string_view traceback)
{
    std::string text = "Lua of the crashed thread\n";
    while (!traceback.empty()) {
        std::string_view line = traceback.substr(0, traceback.find('\n'));
        traceback.remove_prefix(std::min(traceback.size(), line.size() + 1));
        const bool isCall = line.substr(0, 1) == "\t";
        text += (isCall ? "    " : "  ") + EscapeControls(isCall ? line.substr(1) : line) + "\n";
    }
    return text;
}

std::string ModuleSection(const CrashDump& dump, const CrashReportSources& sources)
{
    std::string text = "Modules\n";
    for (const DumpedModule& module : dump.modules) {
        text += "  " + Address(module.start) + "  " + EscapeControls(module.path);
        if (!module.buildId.empty())
            text += "  build " + HexBytes(module.buildId);
        const bool isFile = module.path.compare(0, 1, "/") == 0;
        text += !isFile || sources.isHere(module) ? "\n" : "  (not on this machine)\n";
    }
    return text;
}

} // namespace

std::string CrashReport(const CrashDump& dump, const CrashReportSources& sources)
{
    const auto isCrashed = [&dump](const DumpedThread& thread) { return thread.id == dump.crashedThread; };
    std::string text = Summary(dump);
    for (const DumpedThread& thread : dump.threads) {
        if (isCrashed(thread))
            text +=
                "\n" + ThreadTitle(thread) + ", crashed\n" + Frames(dump, sources.stackOf(thread)) + Registers(thread);
    }
    if (!dump.luaTraceback.empty())
        text += "\n" + LuaSection(dump.luaTraceback);
    for (const DumpedThread& thread : dump.threads) {
        if (!isCrashed(thread))
            text += "\n" + ThreadTitle(thread) + "\n" + Frames(dump, sources.stackOf(thread));
    }
    text += "\n" + ModuleSection(dump, sources);
    text += "\nNotes\n";
    for (const auto& note : dump.notes)
        text += "  " + EscapeControls(note.first) + " = " + EscapeControls(note.second) + "\n";
    return text;
}
