// FipsSetting.h: the configuration's word on FIPS mode.
#pragma once

#include <wx/string.h>

/// False for "" and "0"; every other text asks for FIPS mode.
bool WantsFipsMode(const wxString& setting);
