// The configuration's word on FIPS mode.
//
// Tested by: unit/agent/supervision/FipsSettingTest.cpp.

#include "supervision/FipsSetting.h"

bool WantsFipsMode(const wxString& setting)
{
    return !setting.empty() && setting != L"0";
}
