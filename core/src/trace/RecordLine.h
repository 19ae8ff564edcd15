// RecordLine.h: one log record while it is put together.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <vector>

#include <wx/string.h>

namespace VelCore {

/// Bytes that grow at their end and keep their memory for the next record. Many records a second are put together, so
/// nothing here touches a byte that it does not write.
///
/// Threads: one at a time.
class CRecordLine
{
public:
    /// Begins anew. A record that was very long gives its memory back.
    void Clear();

    /// What the program itself says, as it stands.
    CRecordLine& Add(std::string_view text)
    {
        std::copy(text.begin(), text.end(), Room(text.size()));
        m_size += text.size();
        return *this;
    }

    CRecordLine& Add(long number);

    /// A text from elsewhere, shown as EscapeControls() shows it.
    ///
    /// text  UTF-8, or any bytes
    CRecordLine& AddEscaped(std::string_view text);
    CRecordLine& AddEscaped(const wxString& text);

    /// Lasts until the next call.
    std::string_view Text() const { return {m_bytes.data(), m_size}; }

private:
    char* Room(std::size_t size)
    {
        if (m_bytes.size() - m_size < size)
            Grow(size);
        return m_bytes.data() + m_size;
    }

    void Grow(std::size_t size);
    template <typename Character>
    bool AddPlain(const Character* text, std::size_t size);

    std::vector<char> m_bytes; // as many as there is room for
    std::size_t m_size = 0;    // of the record
};

} // namespace VelCore
