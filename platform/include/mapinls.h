// Character-set helpers of the MAPI headers: on this platform the Win32 stand-in's string and
// code-page functions (CP_ACP is UTF-8) serve them.
#pragma once
#include "windows.h"
