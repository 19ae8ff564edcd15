// ExceptionText.h: describing an exception that nobody handled.
#pragma once

#include <wx/string.h>

/// Describes the exception that is being handled. Call it inside a catch block only.
wxString DescribeCurrentException();
