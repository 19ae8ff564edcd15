// EventStore.h: where this process keeps its agent events.
#pragma once

#include <mutex>
#include <string>

#include <sys/types.h>

#include "events/EventDatabase.h"

namespace VelCore {

class CAgentEvent;

/// The file `agent_events.db` in the work folder of the moment, held open between events. When the folder changes, or
/// the file is removed or renamed by somebody, the next event goes into the file that has the name then.
///
/// A damaged file is moved to a name of its own, `agent_events.db.damaged-<time>`, with its journal, and a new one is
/// started.
///
/// Threads:   any.
/// Processes: any number may write to the same file, but not one that was forked while its parent held it open: the
///            database library cannot take that, so its events are records only.
class CEventStore
{
public:
    static CEventStore& Get();

    CEventStore() = default;
    CEventStore(const CEventStore&) = delete;
    CEventStore& operator=(const CEventStore&) = delete;

    /// Stores the event durably in `folder`, which is created when it is missing. A failure is an error-level record
    /// that holds the whole event, and so is the event with which a damaged file was noticed.
    void Write(const std::string& folder, const CAgentEvent& event);

    /// Closes the file; the next event opens it again.
    void Close();

private:
    DatabaseOutcome WriteOnce(const std::string& path, const CAgentEvent& event);
    bool IsParents() const;

    std::mutex m_mutex;
    CEventDatabase m_database;
    std::string m_path;  // of the file that is open
    pid_t m_process = 0; // that opened it
};

} // namespace VelCore
