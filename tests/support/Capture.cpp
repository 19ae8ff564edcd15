#include "support/Capture.h"

#include <algorithm>
#include <stdexcept>

#include <unistd.h>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

#include "process/Descriptors.h"

namespace VelTest {

CLogCapture::CLogCapture() : m_previous(wxLog::SetActiveTarget(&m_target)), m_wasVerbose(wxLog::GetVerbose())
{
    wxLog::SetVerbose(true);
}

CLogCapture::~CLogCapture()
{
    wxLog::SetVerbose(m_wasVerbose);
    wxLog::SetActiveTarget(m_previous);
}

void CLogCapture::CTarget::DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo&)
{
    const std::lock_guard lock(mutex);
    records.push_back({level, VelCore::ToUtf8(message)});
}

std::vector<CapturedRecord> CLogCapture::Records() const
{
    const std::lock_guard lock(m_target.mutex);
    return m_target.records;
}

std::vector<std::string> CLogCapture::Texts(wxLogLevel level) const
{
    std::vector<std::string> texts;
    for (const CapturedRecord& record : Records()) {
        if (record.level == level)
            texts.push_back(record.text);
    }
    return texts;
}

CDescriptorCapture::CDescriptorCapture(int descriptor)
    : m_descriptor(descriptor), m_saved(-1), m_file(std::tmpfile(), std::fclose)
{
    std::fflush(nullptr);
    m_saved = dup(descriptor);
    if (!m_file || m_saved < 0 || dup2(fileno(m_file.get()), descriptor) < 0)
        throw std::runtime_error("cannot redirect a descriptor");
}

CDescriptorCapture::~CDescriptorCapture()
{
    // A failed expectation may be among what was kept.
    const std::string kept = testing::Test::HasFailure() ? Text() : std::string();
    std::fflush(nullptr);
    dup2(m_saved, m_descriptor);
    close(m_saved);
    VelCore::WriteAll(m_descriptor, kept);
}

std::string CDescriptorCapture::Text() const
{
    std::fflush(nullptr);
    std::string text;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = pread(fileno(m_file.get()), buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0)
        text.append(buffer, static_cast<std::size_t>(got));
    return text;
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

} // namespace VelTest
