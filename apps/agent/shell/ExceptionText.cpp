// One line about an exception of any type.
//
// Tested by: unit/agent/shell/ExceptionTextTest.cpp.

#include "shell/ExceptionText.h"

#include <exception>
#include <typeinfo>

#include <VelCore/Utf8.h>

namespace {

// The implementation marks names of types that are compared by address with a "*".
const char* TypeName(const std::exception& exception)
{
    const char* name = typeid(exception).name();
    return *name == '*' ? name + 1 : name;
}

} // namespace

wxString DescribeCurrentException()
{
    using VelCore::FromUtf8;
    // The handlers are chosen by the exact type that was thrown: integers are not converted into each other.
    try {
        throw;
    } catch (std::exception& exception) {
        return wxString::Format(L"std::exception of type \"%s\", what() = \"%s\"", FromUtf8(TypeName(exception)),
                                FromUtf8(exception.what()));
    } catch (const char* text) {
        return wxString::Format(L"char * exception '%s'", FromUtf8(text ? text : "(null)"));
    } catch (const wchar_t* text) {
        return wxString::Format(L"wchar_t * exception '%s'", text ? text : L"(null)");
    } catch (int value) {
        return wxString::Format(L"int exception %d", value);
    } catch (unsigned int value) {
        return wxString::Format(L"unsigned int exception %u", value);
    } catch (long value) {
        return wxString::Format(L"long exception %ld", value);
    } catch (unsigned long value) {
        return wxString::Format(L"unsigned long exception %lu", value);
    } catch (long long value) {
        return wxString::Format(L"long long exception %lld", value);
    } catch (unsigned long long value) {
        return wxString::Format(L"unsigned long long exception %llu", value);
    } catch (...) {
        return L"<unknown exception>";
    }
}
