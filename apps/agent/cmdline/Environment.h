// Environment.h: environment variables in what an operator writes.
#pragma once

#include <wx/string.h>

/// A leading "~" as HOME. Without HOME, and for "~user", the name stays: the framework's normalisation of file names
/// finds the folder then.
///
/// Values of the environment are file names here and decoded as such (`VelCore::FromUtf8`). The framework decodes them
/// with the C library's locale, and where there is none, as at the start of many a service, the name of another folder
/// results.
wxString ExpandHome(const wxString& name);

/// Expands environment variables, `$NAME`, `${NAME}` and `$(NAME)`, then a leading "~".
///
/// The syntax is that of the framework's wxExpandEnvVars: a variable that is not set stays as it is written, and a
/// backslash keeps a dollar or percent sign. A bracket that is not closed is a warning and stays as it is written, too.
wxString ExpandFileName(const wxString& name);
