// DumpFile.h: the file of a dump: nothing is seen of it under its name before it is whole.
#pragma once

#include "crash/MinidumpWriter.h"
#include "crash/ProcessSnapshot.h"

namespace VelCore {

/// A new file beside its name, for its owner alone. `Keep` puts it in its place; until then nothing is seen of it.
///
/// No link is followed, in the place of the folder or of a file in it.
///
/// Errors: false, and `Error` says why.
/// Memory: allocates nothing and takes no lock.
class CDumpFile final : public CDumpSink
{
public:
    static const int s_OldFiles = 7;

    CDumpFile() = default;
    ~CDumpFile();
    CDumpFile(const CDumpFile&) = delete;
    CDumpFile& operator=(const CDumpFile&) = delete;

    /// folder, name  where the dump is to be; terminated, valid as long as the object
    /// process       makes the name beside it unique, see `PartMark`
    bool Create(const char* folder, const char* name, pid_t process);

    bool Write(std::uint64_t offset, const void* data, std::size_t size) override;
    bool SetSize(std::uint64_t size) override;

    /// Makes the file the newest of its name. `name` becomes `name.1`, and so on up to the first that is free; the
    /// oldest of eight goes. The file can still be written.
    bool Keep();

    /// Removes what was written.
    void Discard();

    /// The errno value of the first failure, and what failed.
    int Error() const { return m_error; }
    const char* FailedAction() const { return m_failedAction; }

    /// What stands between name and process id of a file that is not whole yet.
    static constexpr const char* PartMark() { return ".part."; }

private:
    bool Fail(const char* action);
    bool MakeRoom();

    int m_folder = -1;
    int m_file = -1;
    const char* m_name = nullptr;
    char m_partName[300] = {};
    int m_error = 0;
    const char* m_failedAction = "";
};

/// Removes files that are not whole and whose process is gone: it was killed while it wrote. Allocates.
void RemoveAbandonedDumps(const char* folder, const char* name);

} // namespace VelCore
