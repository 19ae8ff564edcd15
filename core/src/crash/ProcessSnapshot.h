// ProcessSnapshot.h: a crashed process as another process sees it.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <sys/types.h>

#include "crash/MinidumpFormat.h"

namespace VelCore {

/// Where and why a thread crashed, as its signal handler was told.
struct CrashSite
{
    pid_t process;
    pid_t thread;
    int signal;
    const siginfo_t* information;
    void* context; // the handler's third argument
};

struct SnapshotThread
{
    pid_t id;
    std::uint64_t threadData; // where its thread-local data is found
    char name[16];
    Minidump::ContextAmd64 context;
};

/// A range of the address space. `path` is empty for memory without a file.
struct SnapshotMapping
{
    std::uint64_t start;
    std::uint64_t end; // first address behind it
    std::uint64_t fileOffset;
    bool isReadable;
    bool isWritable;
    bool isExecutable;
    std::string_view path;

    bool Holds(std::uint64_t address) const { return address >= start && address < end; }
};

struct BuildId
{
    std::size_t size; // 0: the module has none
    std::uint8_t bytes[32];
};

/// An executable or shared library in memory.
struct SnapshotModule
{
    std::uint64_t start;
    std::uint64_t size;
    std::string_view path;
    BuildId buildId;
};

/// A fixed number of rows without allocation; what does not fit is counted.
///
/// One in static memory is zeros from the beginning, so it takes no memory before it is used.
template <typename Row, std::size_t Capacity>
class FixedRows
{
public:
    /// A new row at the end, which may hold what a removed one held; null, and counted, when all rows are in use.
    Row* Add()
    {
        if (m_size == Capacity) {
            ++m_leftOut;
            return nullptr;
        }
        return &m_rows[m_size++];
    }
    void RemoveLast() { --m_size; }
    std::size_t size() const { return m_size; }
    std::size_t LeftOut() const { return m_leftOut; }
    const Row& operator[](std::size_t index) const { return m_rows[index]; }
    const Row* begin() const { return m_rows; }
    const Row* end() const { return m_rows + m_size; }
    Row* begin() { return m_rows; }
    Row* end() { return m_rows + m_size; }

private:
    Row m_rows[Capacity]{};
    std::size_t m_size = 0;
    std::size_t m_leftOut = 0;
};

using SnapshotThreads = FixedRows<SnapshotThread, 1024>;
using SnapshotMappings = FixedRows<SnapshotMapping, 16384>;
using SnapshotModules = FixedRows<SnapshotModule, 1024>;

/// The memory of a process.
class CProcessMemory
{
public:
    /// Copies up to `size` bytes. Returns how many there were before the first that cannot be read.
    virtual std::size_t Read(std::uint64_t address, void* to, std::size_t size) const = 0;

protected:
    ~CProcessMemory() = default;
};

/// Large, so one lives in static memory; texts point into the buffers.
struct ProcessSnapshot
{
    pid_t process;
    pid_t crashedThread;
    int signal;
    int signalCode;
    std::uint64_t faultAddress;
    std::int64_t time; // seconds since the epoch
    int processorCount;
    std::string_view systemText; // name and version of the system

    SnapshotThreads threads;       // the crashed one is the first
    std::size_t threadsNotStopped; // left out, because the system did not let us look at them
    SnapshotMappings mappings;
    SnapshotModules modules;
    std::string_view mapsText;
    std::string_view statusText;
    std::string_view commandLine;
    std::string_view auxv;
};

/// Stops the other threads of the crashed process, and takes down what a dump needs. The threads stay stopped, and the
/// memory stays as it is, until the calling process ends.
///
/// Called in a fork of the crashed thread. Where the system does not let us look at the process, the snapshot is made
/// from our own memory, a copy of its, with the crashed thread alone.
///
/// Errors: false when the system is one whose processes we cannot look at.
/// Memory: allocates nothing and takes no lock.
bool TakeSnapshot(const CrashSite& site, ProcessSnapshot& snapshot);

/// The memory of the process of the last snapshot.
const CProcessMemory& SnapshotMemory();

// What a signal handler needs to know and do, in each system's own way.

/// A number that no other thread of the system has now.
pid_t CurrentThread();

/// As fork, but safe in a signal handler of a process with threads and locks in any state.
pid_t ForkInHandler();

/// Lets the children of this process look into it, where the system asks for that.
void AllowInspection();

/// Makes this process end when its parent does, if the system can do that.
void EndWithParent();

/// Closes every descriptor from `first` on.
void CloseDescriptorsFrom(int first);

/// Sends the signal to the calling thread.
void RaiseInThread(int signal);

/// What an errno value means, from a table: safe in a signal handler.
const char* ErrorText(int error);

} // namespace VelCore
