// MinidumpFormat.h: the records of a minidump file, as debuggers read them.
#pragma once

#include <cstdint>

namespace VelCore::Minidump {

// Everything is little-endian and aligned to four bytes; an "rva" is an offset from the beginning of the file.
//
// Source: Microsoft's documentation of minidumpapiset.h (MINIDUMP_HEADER and what it refers to) and of winnt.h
//         (CONTEXT of x64). The values that only Unix systems use are listed in LLVM's MinidumpConstants.def.
#pragma pack(push, 4)

const std::uint32_t kSignature = 0x504D444D; // "MDMP"
const std::uint32_t kVersion = 0xA793;

// Header::flags
const std::uint64_t kNormal = 0;
const std::uint64_t kWithFullMemory = 2;

enum StreamType : std::uint32_t {
    kUnusedStream = 0,
    kThreadList = 3,
    kModuleList = 4,
    kMemoryList = 5,
    kException = 6,
    kSystemInfo = 7,
    kMemory64List = 9,
    kMiscInfo = 15,
    kThreadNames = 24,

    // The files of that name in /proc/<pid>.
    kLinuxProcStatus = 0x47670004,
    kLinuxCommandLine = 0x47670006,
    kLinuxAuxv = 0x47670008,
    kLinuxMaps = 0x47670009,

    // Our own, in the range that is left to applications; docs/CRASHES.md describes them.
    kNotes = 0x4B580001,       // lines `name=value`
    kLuaTraceback = 0x4B580002 // text
};

struct Location
{
    std::uint32_t size; // bytes
    std::uint32_t rva;
};

struct Header
{
    std::uint32_t signature;
    std::uint32_t version;
    std::uint32_t streamCount;
    std::uint32_t directoryRva;
    std::uint32_t checksum; // 0: none
    std::uint32_t time;     // seconds since the epoch
    std::uint64_t flags;
};

struct DirectoryEntry
{
    std::uint32_t type;
    Location location;
};

struct MemoryDescriptor
{
    std::uint64_t start;
    Location memory;
};

// A stream begins with the number of its rows, as a 32-bit number, for threads, modules, memory and names.

struct Thread
{
    std::uint32_t id;
    std::uint32_t suspendCount;
    std::uint32_t priorityClass;
    std::uint32_t priority;
    std::uint64_t environmentBlock; // where thread-local data is found
    MemoryDescriptor stack;
    Location context;
};

struct ThreadName
{
    std::uint32_t id;
    std::uint64_t nameRva;
};

struct Module
{
    std::uint64_t base;
    std::uint32_t size;
    std::uint32_t checksum;
    std::uint32_t time;
    std::uint32_t nameRva;
    std::uint32_t fileVersion[13];
    Location codeView;
    Location misc;
    std::uint64_t reserved[2];
};

// First word of a CodeView record that is an ELF build identifier; its bytes follow. "BpEL".
const std::uint32_t kBuildIdSignature = 0x4270454C;

const int kMaxExceptionParameters = 15;

struct ExceptionStream
{
    std::uint32_t threadId;
    std::uint32_t alignment;
    std::uint32_t code;  // the signal
    std::uint32_t flags; // its si_code
    std::uint64_t nested;
    std::uint64_t address; // the address that could not be accessed, or of the instruction
    std::uint32_t parameterCount;
    std::uint32_t alignment2;
    std::uint64_t parameters[kMaxExceptionParameters];
    Location context;
};

const std::uint16_t kProcessorAmd64 = 9;
const std::uint32_t kPlatformLinux = 0x8201;

struct SystemInfo
{
    std::uint16_t processor;
    std::uint16_t processorLevel;
    std::uint16_t processorRevision;
    std::uint8_t processorCount;
    std::uint8_t productType;
    std::uint32_t majorVersion;
    std::uint32_t minorVersion;
    std::uint32_t buildNumber;
    std::uint32_t platform;
    std::uint32_t versionTextRva;
    std::uint16_t suiteMask;
    std::uint16_t reserved;
    std::uint8_t processorFeatures[24];
};

// MiscInfo::flags
const std::uint32_t kHasProcessId = 1;

struct MiscInfo
{
    std::uint32_t size; // of the structure
    std::uint32_t flags;
    std::uint32_t processId;
    std::uint32_t createTime;
    std::uint32_t userTime;
    std::uint32_t kernelTime;
};

struct Memory64List
{
    std::uint64_t count;
    std::uint64_t baseRva; // of the memory of all rows, one behind the other
};

struct Memory64Descriptor
{
    std::uint64_t start;
    std::uint64_t size;
};

// ContextAmd64::flags: all that is filled in here.
const std::uint32_t kContextAmd64 = 0x00100000;
const std::uint32_t kContextControl = 1;
const std::uint32_t kContextInteger = 2;
const std::uint32_t kContextSegments = 4;
const std::uint32_t kContextFloatingPoint = 8;
const std::uint32_t kContextAll =
    kContextAmd64 | kContextControl | kContextInteger | kContextSegments | kContextFloatingPoint;

const int kFxsaveBytes = 512;

struct ContextAmd64
{
    std::uint64_t home[6];
    std::uint32_t flags;
    std::uint32_t mxcsr;
    std::uint16_t cs, ds, es, fs, gs, ss;
    std::uint32_t eflags;
    std::uint64_t debug[6];
    std::uint64_t rax, rcx, rdx, rbx, rsp, rbp, rsi, rdi;
    std::uint64_t r8, r9, r10, r11, r12, r13, r14, r15;
    std::uint64_t rip;
    std::uint8_t fxsave[kFxsaveBytes];
    std::uint64_t vectors[52];
    std::uint64_t vectorControl;
    std::uint64_t debugControl;
    std::uint64_t lastBranch[2];
    std::uint64_t lastException[2];
};

#pragma pack(pop)

static_assert(sizeof(Header) == 32);
static_assert(sizeof(DirectoryEntry) == 12);
static_assert(sizeof(Thread) == 48);
static_assert(sizeof(ThreadName) == 12);
static_assert(sizeof(Module) == 108);
static_assert(sizeof(ExceptionStream) == 168);
static_assert(sizeof(SystemInfo) == 56);
static_assert(sizeof(MiscInfo) == 24);
static_assert(sizeof(Memory64List) == 16);
static_assert(sizeof(ContextAmd64) == 1232);

} // namespace VelCore::Minidump
