// Per-thread last-error value.
#pragma once
#include "winnt.h"

extern "C" {
DWORD WINAPI GetLastError();
void WINAPI SetLastError(DWORD dwErrCode);
}
