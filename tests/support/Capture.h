// Capture.h: what the code under test logs and prints.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <wx/log.h>

namespace VelTest {

struct CapturedRecord
{
    wxLogLevel level;
    std::string text; // UTF-8
};

/// While it lives, the framework's log goes here, verbose records included.
class CLogCapture
{
public:
    CLogCapture();
    ~CLogCapture();
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    std::vector<CapturedRecord> Records() const;

    /// The texts of all records of this level.
    std::vector<std::string> Texts(wxLogLevel level) const;

private:
    class CTarget : public wxLog
    {
    public:
        mutable std::mutex mutex;
        std::vector<CapturedRecord> records;

    protected:
        void DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo& info) override;
    };

    CTarget m_target;
    wxLog* m_previous;
    bool m_wasVerbose;
};

/// While it lives, what is written to a standard descriptor (1 or 2) is kept instead of shown.
class CDescriptorCapture
{
public:
    explicit CDescriptorCapture(int descriptor);
    ~CDescriptorCapture();
    CDescriptorCapture(const CDescriptorCapture&) = delete;
    CDescriptorCapture& operator=(const CDescriptorCapture&) = delete;

    /// Everything written so far.
    std::string Text() const;

private:
    int m_descriptor;
    int m_saved;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> m_file;
};

/// The lines of a text, without their line feeds; a last line without one counts.
std::vector<std::string> Lines(const std::string& text);

} // namespace VelTest
