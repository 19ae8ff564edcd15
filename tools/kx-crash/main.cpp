// kx-crash FILE: prints a crash dump of the agent for a person.

#include <cstdio>
#include <cstring>

#include "Backtrace.h"
#include "CrashDump.h"
#include "CrashReport.h"
#include "DumpBytes.h"

namespace {

const char kUsage[] = "usage: kx-crash FILE\n";

int Fail(const char* path, const std::string& reason)
{
    std::fprintf(stderr, "kx-crash: %s: %s\n", path, reason.c_str());
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc != 2 || argv[1][0] == '-') {
        std::fputs(kUsage, stderr);
        return 2;
    }
    CDumpBytes file;
    std::string error;
    if (!file.Map(argv[1], error))
        return Fail(argv[1], error);
    const auto dump = ReadCrashDump(file.Bytes(), error);
    if (!dump)
        return Fail(argv[1], error);

    CBacktrace backtrace(*dump);
    const std::string report =
        CrashReport(*dump, {[&backtrace](const DumpedThread& thread) { return backtrace.Of(thread); },
                            [&backtrace](const DumpedModule& module) { return backtrace.IsHere(module); }});
    const bool isWritten = std::fwrite(report.data(), 1, report.size(), stdout) == report.size();
    return std::fflush(stdout) == 0 && isWritten ? 0 : Fail("standard output", std::strerror(errno));
}
