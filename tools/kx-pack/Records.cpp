#include "Records.h"

#include <VelCore/Utf8.h>

CRecords::CRecords() : m_previous(wxLog::SetActiveTarget(&m_target)) {}

CRecords::~CRecords()
{
    wxLog::SetActiveTarget(m_previous);
}

void CRecords::CTarget::DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo&)
{
    const char* const words[] = {"Fatal", "Error", "Warning", "Message"}; // by level
    if (level <= wxLOG_Message)
        lines.push_back(std::string(words[level]) + ": " + VelCore::ToUtf8(message));
}
