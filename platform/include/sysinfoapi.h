// System information. The tick counters read the stand-in's scaled clock (see adplatform.h):
// milliseconds of system time since the machine started, sped up under a time scale.
#pragma once
#include "winnt.h"

extern "C" {

// Wraps to 0 after 2^32 ms (49.7 days), as published.
DWORD WINAPI GetTickCount();
ULONGLONG WINAPI GetTickCount64();

}  // extern "C"
