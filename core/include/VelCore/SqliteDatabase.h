// SqliteDatabase.h: the database library, configured once for the process.
#pragma once

namespace VelCore {

class CDom;

/// Start and end of the database library.
class CSqliteDatabase
{
public:
    /// Starts the library with the settings under `sqlite.config` in `dom`, which hold for every connection that the
    /// process opens, Lua modules' connections included:
    ///
    ///     sqlite.config.cache            pages kept per connection
    ///     sqlite.config.busy_timeout     milliseconds to wait for a lock; 5000 when not given
    ///     sqlite.config.mmap_size        bytes of a database file that are mapped
    ///     sqlite.config.soft_heap_limit  bytes of memory the library tries to stay below
    ///     sqlite.config.synchronous      0 to 3, see the library's pragma of that name
    ///
    /// Errors:  an unknown name, or a value out of range, is a warning that names it; the rest counts.
    /// Threads: call it before the second thread exists.
    static void InitializeSQLite(const CDom* dom);

    /// Closes the agent events and shuts the library down, unless another connection is still open: then the library
    /// is left alone.
    static void ShutdownSQLite();
};

} // namespace VelCore
