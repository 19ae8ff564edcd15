// Records.h: what the agent's own code has to say.
#pragma once

#include <string>
#include <vector>

#include <wx/log.h>

/// While it lives, records of the framework's log are kept instead of shown.
///
/// Threads: the thread that made it; records of others are not expected.
class CRecords
{
public:
    CRecords();
    ~CRecords();
    CRecords(const CRecords&) = delete;
    CRecords& operator=(const CRecords&) = delete;

    /// Errors, warnings and messages so far, as the agent's log would have them: "Warning: text".
    const std::vector<std::string>& Lines() const { return m_target.lines; }

private:
    class CTarget : public wxLog
    {
    public:
        std::vector<std::string> lines;

    protected:
        void DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo& info) override;
    };

    CTarget m_target;
    wxLog* m_previous;
};
