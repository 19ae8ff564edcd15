#include "support/Script.h"

#include <cstdlib>

#include <wx/mstream.h>

#include <VelCore/Utf8.h>

namespace VelTest {

CScript::CScript(bool openLibraries) : m_interpreter(true, L"test.lua", openLibraries) {}

int CScript::Run(const std::string& text, int results)
{
    wxMemoryInputStream in(text.data(), text.size());
    wxMemoryOutputStream out;
    const int status = m_interpreter.RunScript(in, 0, results, L"test", &out);
    const wxStreamBuffer* const buffer = out.GetOutputStreamBuffer();
    m_output.assign(static_cast<const char*>(buffer->GetBufferStart()), buffer->GetIntPosition());
    return status;
}

std::string CScript::Value(const std::string& text)
{
    if (Run(text, 1) != 0)
        return "error: " + Error();
    std::size_t length = 0;
    const char* const bytes = luaL_tolstring(L(), -1, &length);
    std::string value(bytes, length);
    lua_pop(L(), 2);
    return value;
}

std::string CScript::Error() const
{
    const std::string text = VelCore::ToUtf8(m_interpreter.GetErrorInfo());
    return text.substr(0, text.find('\n'));
}

void* CPoorState::Allocate(void* budget, void* block, std::size_t oldSize, std::size_t newSize)
{
    auto* const self = static_cast<Budget*>(budget);
    const std::size_t held = block ? oldSize : 0; // without a block the old size is a kind of object
    if (newSize == 0) {
        self->bytes -= static_cast<long>(held);
        std::free(block);
        return nullptr;
    }
    if (newSize > held) { // Lua counts on blocks that can always shrink
        if (self->left == 0)
            return nullptr;
        if (self->left > 0)
            --self->left;
    }
    void* const moved = std::realloc(block, newSize);
    if (moved)
        self->bytes += static_cast<long>(newSize) - static_cast<long>(held);
    return moved;
}

CPoorState::CPoorState() : m_state(lua_newstate(Allocate, &m_budget))
{
    luaL_openlibs(m_state);
}

CPoorState::~CPoorState()
{
    Close();
}

long CPoorState::Close()
{
    AllowAll();
    if (m_state)
        lua_close(m_state);
    m_state = nullptr;
    return m_budget.bytes;
}

} // namespace VelTest
